// The guarded and the aligned back end and the stubs: what the table of bound functions can hold
// besides the heap and the C runtime.
//
// Guarded block, one C runtime block per request (positions in bytes from its start):
//
//     0         8                       24                      24 + size          40 + size
//     | size    | DEADBEEFDEADBEEF      | user data             | DEADBEEFDEADBEEF  |
//                                       ^ the caller's pointer
//
// The back guard follows the data with no gap, so the first byte written past the end lands in it.
// The caller's pointer is aligned to 8, not to the runtime's 16. Damage is reported when the block
// is given back or resized; it never stops the process, and the block is released all the same.
//
// Both keep no state and are as thread-safe as the C runtime; reports of two threads may
// interleave.
#pragma once

#include <cstddef>

#include "mem_Mallinfo.h"

extern "C" {

void* myMalloc(std::size_t size);
void myFree(void* ptr);
void* myRealloc(void* ptr, std::size_t size);
void* myCalloc(std::size_t count, std::size_t size);

// The stubs for what only the heap can answer: each returns zero.
int mem_notrim(std::size_t pad);
int mem_nomallopt(int param, std::size_t value);
std::size_t mem_nofootprint();
std::size_t mem_nomemorylimit();
int mem_noerrormemorylimit();
kxm::mallinfo mem_nomallinfo();

} // extern "C"
