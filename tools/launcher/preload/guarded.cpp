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
constexpr std::size_t notes = 16;

std::uint64_t word_before(const void* block, std::size_t distance) {
    std::uint64_t word = 0;
    std::memcpy(&word, static_cast<const char*>(block) - distance, sizeof word);
    return word;
}

// Never small, so never a size of the C runtime.
std::uint32_t signature(const void* block) {
    const std::uint64_t mixed =
        (reinterpret_cast<std::uintptr_t>(block) >> 4) * 0x9e3779b97f4a7c15U;
    return static_cast<std::uint32_t>(mixed >> 32) | 0x80000000U;
}

bool is_note(const void* block, std::uint64_t word) {
    return word >> 32 == signature(block);
}

// What the C runtime may have in front of a block: a size with its three flags.
bool may_be_size(std::uint64_t word) {
    return word >= 32 && word < std::uint64_t{1} << 47 && (word & 8) == 0;
}

void write_notes(void* block, std::uint64_t word) {
    char* const place = static_cast<char*>(block) - notes;
    std::memcpy(place, &word, sizeof word);
    std::memcpy(place + sizeof word, &word, sizeof word);
}

bool is_undamaged(const void* block) {
    return is_note(block, word_before(block, 8));
}

std::size_t offset_of(const void* block) {
    return word_before(block, is_undamaged(block) ? 8 : 16) & 0xffffffffU;
}

} // namespace

void* take(std::size_t size, std::size_t alignment) {
    const std::size_t slack = alignment + notes;
    // Asked for here, and handed to the library when it asks: it cannot bear a null.
    void* const raw = __libc_malloc(header + slack + size + guard);
    if (raw == nullptr || slack > 0xffffffffU) {
        __libc_free(raw);
        return nullptr;
    }
    const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(raw) + header;
    const std::uintptr_t place = (base + notes + alignment - 1) & ~(alignment - 1);
    const std::size_t offset = place - base;
    own.handed = raw;
    mem_malloc(offset + size); // exactly to the end of the data, where the guard is to be
    void* const block = reinterpret_cast<void*>(place);
    write_notes(block, std::uint64_t{signature(block)} << 32 | offset);
    return block;
}

bool is(const void* block) {
    const std::uint64_t word = word_before(block, 8);
    return is_note(block, word) || (!may_be_size(word) && is_note(block, word_before(block, 16)));
}

void give(void* block) {
    if (!is_undamaged(block)) {
        std::fprintf(stderr, "FREE:memory overwrite detected at 0x%x front end\n",
                     static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(block) - 8));
    }
    const std::size_t offset = offset_of(block);
    write_notes(block, 0); // whoever gets this place next has no note by chance
    mem_free(static_cast<char*>(block) - offset);
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
