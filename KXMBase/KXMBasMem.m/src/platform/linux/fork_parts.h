// What the files of this folder give to the handling of fork in os_threads.cpp.
#pragma once

namespace os::fork_parts {

// The table of what was handed out, in os_memory.cpp.
void lock_table();
void unlock_table();
void renew_table();

void renew_symbols(); // the cache of names, in symbols.cpp

} // namespace os::fork_parts
