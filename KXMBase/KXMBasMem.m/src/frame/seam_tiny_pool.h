// Where the frame calls up into tiny/: the pool for requests of at most 128 bytes. Each forwards to
// the operation of that name of mem_TBPool::Instance().
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/compiler.h"

namespace tiny_seam {

// How a block of the pool is recognised: its page begins with its own address and the tag.
inline constexpr std::uintptr_t page_bytes = 4096;
inline constexpr std::uint64_t page_tag = 0xabababab;

/// The first two words of a page.
struct KXM_MAY_ALIAS Tag {
    std::uint64_t self;
    std::uint64_t mark;
};

inline Tag* page_of(const void* ptr) {
    return reinterpret_cast<Tag*>(reinterpret_cast<std::uintptr_t>(ptr) & ~(page_bytes - 1));
}

/// Whether a page of the pool starts here. Any mapped memory may be asked about.
inline bool is_page(const Tag* tag) {
    return os::peek_word(&tag->self) == reinterpret_cast<std::uintptr_t>(tag) &&
           os::peek_word(&tag->mark) == page_tag;
}

void* alloc(std::size_t size); ///< under the pool's lock, if that is on
void* realloc(void* ptr, std::size_t size);
void free(void* ptr); ///< pre: its page has been seen to carry the pool's tag

// Around a fork: the pool's lock, if that is on.
void lock_for_fork();
void unlock_in_parent();
void renew_in_child();

} // namespace tiny_seam
