// A fork while other threads run: every lock of the library is free in the child, and what it guards is
// whole.
#pragma once

namespace forking {

/// Sees to it for all forks of this process to come. Later calls do nothing.
void watch();

/// `asked`, before and after each fork: whether a signal handler makes it, which has interrupted its thread in
/// this library. The locks of heap and pool, which that thread may hold, are then left as they are: what was
/// interrupted gives them back, in the child too.
void ask_whether_interrupted(bool (*asked)());

} // namespace forking
