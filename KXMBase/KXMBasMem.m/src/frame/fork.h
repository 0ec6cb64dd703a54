// A fork while other threads run: every lock of the library is free in the child, and what it guards is
// whole.
#pragma once

namespace forking {

/// Sees to it for all forks of this process to come. Later calls do nothing.
void watch();

} // namespace forking
