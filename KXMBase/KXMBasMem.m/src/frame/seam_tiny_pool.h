// Where the frame calls up into tiny/: the pool for requests of at most 128 bytes. Each forwards to
// the operation of that name of mem_TBPool::Instance().
#pragma once

#include <cstddef>

namespace tiny_seam {

void* alloc(std::size_t size); ///< under the pool's lock, if that is on
void* realloc(void* ptr, std::size_t size);
void free(void* ptr); ///< pre: its page has been seen to carry the pool's tag

} // namespace tiny_seam
