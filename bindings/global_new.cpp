// The global operators new and delete, every standard form, by way of mem_OperatorNewThrowBuiltin:
// what the language allocates for a program that links this comes from the library, with its failure
// report, new-handler loop, memory limit and tracker. It all goes back through mem_Free.
//
// The language wants 16 bytes of alignment, or more where a type asks for it; a block of the library
// has 8, 16 or 64, by back end and size. A block that happens to lie right is handed out as it is:
// that is every plain request on the C runtime, the aligned back end and the heap, and it costs
// nothing. Otherwise a larger block is asked for, and the caller gets the first right address in it
// that leaves room for a mark in front:
//
//   block            the shift, if it is not 8    the mark           what the caller gets
//   | ...            |                            |                  | 16, 32, 64, ... bytes aligned
//   <----------------------- shift ------------------------------->
//
// The mark is the caller's address under a mask, so that no allocator's word and no neighbour's data
// is taken for one, and it is wiped out at the release. A delete thus finds the block by itself,
// whatever form it has. The mark is not looked for in front of a page, where nothing may be mapped:
// no shifted address begins one, unless its alignment is a page's, and those are always shifted.
//
// A no-throw form returns null where the throwing one throws, as the language wants it; the
// library's own no-throw entries try for ever instead and so do not stand behind it.
#include "mem_AllocationOperators.h"
#include "mem_Interface.h"

#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

#include "platform/compiler.h"

namespace {

constexpr std::size_t language_alignment = __STDCPP_DEFAULT_NEW_ALIGNMENT__;
constexpr std::size_t block_alignment = 8; // what every block of at least 16 bytes has
constexpr std::size_t page = 4096;
constexpr std::size_t size_max = std::numeric_limits<std::size_t>::max();
static_assert(language_alignment == 16 && sizeof(void*) == 8);

constexpr std::uint64_t mark_shift_8 = 0xA5C31E97D2684BF1;
constexpr std::uint64_t mark_shift_told = 0x5E38C4A97B1D06F3;

std::uintptr_t address(const void* ptr) {
    return reinterpret_cast<std::uintptr_t>(ptr);
}

// What lies in front of an unshifted block belongs to its allocator or to another block.
KXM_NO_SANITIZE_INLINE inline std::uint64_t word_before(const void* ptr) {
    return static_cast<const volatile std::uint64_t*>(ptr)[-1];
}

void set_word_before(char* ptr, std::uint64_t value) {
    std::memcpy(ptr - sizeof value, &value, sizeof value);
}

// Whether a plain request did not lie right once, by alignment, and apart for requests that the tiny
// block pool may serve. Larger blocks are asked for at once from then on.
constexpr std::size_t small = 128;
std::atomic<bool> s_lies_wrong[2][64];

std::atomic<bool>& lies_wrong(std::size_t size, std::size_t alignment) {
    return s_lies_wrong[size <= small][std::countr_zero(alignment)];
}

bool needs_shift(const void* ptr, std::size_t alignment) {
    return address(ptr) % alignment != 0 || alignment >= page;
}

// pre: `block` has size + 2 * alignment - 8 bytes. The shift is at most 2 * alignment - 8.
void* shifted(char* block, std::size_t alignment) {
    std::size_t shift = alignment - address(block) % alignment;
    if (shift < block_alignment || address(block + shift) % page == 0) {
        shift += alignment < page ? alignment : 0;
    }
    char* const ptr = block + shift;
    if (shift == block_alignment) {
        set_word_before(ptr, address(ptr) ^ mark_shift_8);
    } else {
        set_word_before(ptr, address(ptr) ^ mark_shift_told);
        set_word_before(ptr - sizeof(std::uint64_t), shift);
    }
    return ptr;
}

// pre: `alignment` is a power of two.
KXM_NEVER_INLINE void* take_shifted(std::size_t size, std::size_t alignment) {
    const std::size_t least = size < language_alignment ? language_alignment : size;
    const std::size_t extra = 2 * alignment - block_alignment;
    // What would wrap is asked for as the largest size there is: to be refused and reported.
    const bool wraps = alignment > size_max / 4 || least > size_max - extra;
    auto* const block =
        static_cast<char*>(mem_OperatorNewThrowBuiltin(wraps ? size_max : least + extra));
    return needs_shift(block, alignment) ? shifted(block, alignment) : block;
}

KXM_ALWAYS_INLINE void* take(std::size_t size, std::size_t alignment = language_alignment) {
    if (!lies_wrong(size, alignment).load(std::memory_order_relaxed)) [[likely]] {
        void* const block = mem_OperatorNewThrowBuiltin(size);
        if (!needs_shift(block, alignment)) [[likely]] {
            return block;
        }
        mem_Free(block);
        lies_wrong(size, alignment).store(true, std::memory_order_relaxed);
    }
    return take_shifted(size, alignment);
}

KXM_ALWAYS_INLINE void give(void* ptr, std::size_t alignment = language_alignment) noexcept {
    auto* block = static_cast<char*>(ptr);
    if (address(ptr) % page != 0 || (alignment >= page && ptr != nullptr)) [[likely]] {
        const std::uint64_t mark = word_before(ptr) ^ address(ptr);
        if (mark == mark_shift_8 || mark == mark_shift_told) [[unlikely]] {
            std::uint64_t shift = block_alignment;
            if (mark == mark_shift_told) {
                std::memcpy(&shift, block - 2 * sizeof shift, sizeof shift);
            }
            set_word_before(block, 0);
            block -= shift;
        }
    }
    mem_Free(block);
}

std::size_t at_least_the_languages(std::align_val_t alignment) {
    const auto wanted = static_cast<std::size_t>(alignment);
    return wanted < language_alignment ? language_alignment : wanted;
}

void* take(std::size_t size, std::align_val_t alignment) {
    return take(size, at_least_the_languages(alignment));
}

void give(void* ptr, std::align_val_t alignment) noexcept {
    give(ptr, at_least_the_languages(alignment));
}

template <typename... Arguments> void* take_or_null(Arguments... arguments) noexcept {
    try {
        return take(arguments...);
    } catch (...) {
        return nullptr;
    }
}

} // namespace

// clang-format off
void* operator new(std::size_t size) { return take(size); }
void* operator new[](std::size_t size) { return take(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return take_or_null(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return take_or_null(size); }
void* operator new(std::size_t size, std::align_val_t align) { return take(size, align); }
void* operator new[](std::size_t size, std::align_val_t align) { return take(size, align); }
void* operator new(std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept { return take_or_null(size, align); }
void* operator new[](std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept { return take_or_null(size, align); }

void operator delete(void* ptr) noexcept { give(ptr); }
void operator delete[](void* ptr) noexcept { give(ptr); }
void operator delete(void* ptr, std::size_t) noexcept { give(ptr); }
void operator delete[](void* ptr, std::size_t) noexcept { give(ptr); }
void operator delete(void* ptr, const std::nothrow_t&) noexcept { give(ptr); }
void operator delete[](void* ptr, const std::nothrow_t&) noexcept { give(ptr); }
void operator delete(void* ptr, std::align_val_t align) noexcept { give(ptr, align); }
void operator delete[](void* ptr, std::align_val_t align) noexcept { give(ptr, align); }
void operator delete(void* ptr, std::size_t, std::align_val_t align) noexcept { give(ptr, align); }
void operator delete[](void* ptr, std::size_t, std::align_val_t align) noexcept { give(ptr, align); }
void operator delete(void* ptr, std::align_val_t align, const std::nothrow_t&) noexcept { give(ptr, align); }
void operator delete[](void* ptr, std::align_val_t align, const std::nothrow_t&) noexcept { give(ptr, align); }
// clang-format on
