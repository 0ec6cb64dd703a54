// See guarded.h.
#include "guarded.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "mem_BoundFunctions.h"
#include "process.h"

namespace kxmrun::guarded {
namespace {

constexpr std::size_t header = 24; // the library's, in front of its block
constexpr std::size_t guard = 16;
constexpr char guard_text[] = "DEADBEEFDEADBEEF";

std::uint64_t word_before(const void* block) {
    std::uint64_t word = 0;
    std::memcpy(&word, static_cast<const char*>(block) - sizeof word, sizeof word);
    return word;
}

// Never small, so never a size of the C runtime.
std::uint32_t signature(const void* block) {
    const std::uint64_t mixed =
        (reinterpret_cast<std::uintptr_t>(block) >> 4) * 0x9e3779b97f4a7c15U;
    return static_cast<std::uint32_t>(mixed >> 32) | 0x80000000U;
}

bool is_signed(const void* block) {
    return word_before(block) >> 32 == signature(block);
}

// A program that wrote in front of its block has hit the word, and behind it the library's front guard may
// stand, which such a block of the common alignment has there.
bool lost_signature(const void* block) {
    return word_before(block) >> 48 != 0 &&
           std::memcmp(static_cast<const char*>(block) - 8 - guard, guard_text, guard) == 0;
}

std::size_t offset_of(const void* block) {
    return is_signed(block) ? word_before(block) & 0xffffffffU : 8;
}

} // namespace

void* take(std::size_t size, std::size_t alignment) {
    const std::size_t slack = alignment <= 16 ? 8 : alignment + 8;
    // Asked for here, and handed to the library when it asks: it cannot bear a null.
    void* const raw = __libc_malloc(header + slack + size + guard);
    if (raw == nullptr || slack > 0xffffffffU) {
        __libc_free(raw);
        return nullptr;
    }
    const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(raw) + header;
    const std::uintptr_t place = (base + 8 + alignment - 1) & ~(alignment - 1);
    const std::size_t offset = place - base;
    own.handed = raw;
    mem_malloc(offset + size); // exactly to the end of the data, where the guard is to be
    void* const block = reinterpret_cast<void*>(place);
    const std::uint64_t word = std::uint64_t{signature(block)} << 32 | offset;
    std::memcpy(reinterpret_cast<void*>(place - sizeof word), &word, sizeof word);
    return block;
}

bool is(const void* block) {
    return is_signed(block) || lost_signature(block);
}

void give(void* block) {
    if (!is_signed(block)) {
        std::fprintf(stderr, "FREE:memory overwrite detected at 0x%x front end\n",
                     static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(block) - 8));
    }
    mem_free(static_cast<char*>(block) - offset_of(block));
}

std::size_t size(const void* block) {
    const std::size_t offset = offset_of(block);
    std::uint64_t stored = 0;
    std::memcpy(&stored, static_cast<const char*>(block) - offset - header, sizeof stored);
    return stored - offset;
}

void* runtime_malloc(std::size_t size) {
    if (void* const handed = own.handed) {
        own.handed = nullptr;
        return handed;
    }
    return __libc_malloc(size);
}

} // namespace kxmrun::guarded
