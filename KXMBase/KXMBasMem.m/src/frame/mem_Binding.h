// Internal side of the table of bound functions: who fills it, and the bootstrap that stands in
// mem_malloc until then.
#pragma once

#include <cstddef>

/// True while nothing has been bound yet.
bool mem_tableUnbound();

/// Chooses the back end from the environment and fills the table. pre: mem_tableUnbound().
void mem_chooseBackend();

/// Fills the table: the heap column if mem_Mallinfo::useDL, else the aligned or the C runtime
/// column by the environment; then, if `guarded`, the guarded column over it.
void mem_bindFunctions(bool guarded);

/// First value of mem_malloc: binds the table when memory is asked for before the library started.
/// Aborts, with a message, if the heap was asked for, because the heap must never hold a block that
/// was handed out before the component started.
extern "C" void* mem_firstMalloc(std::size_t size);
