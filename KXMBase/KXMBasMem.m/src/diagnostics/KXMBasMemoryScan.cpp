// Scans and fills of memory. What they look for is rare, so a scan asks first of a whole block whether
// anything in it may be a find: a loop without a branch, which the compiler turns into wide
// operations and which runs as fast as memory is read. Only a block that answers yes is gone through
// word by word, in its order.
#include "KXMBasMemoryCheck.h"
#include "omi_FloatingPoint.h"

#include <bit>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <emmintrin.h>

#include "platform/compiler.h"

namespace {

constexpr std::size_t block_words = 64;

// Adding the exponent's lowest bit to an exponent carries into the sign's place when all its bits are
// set: NaNs, infinities, and what the test for NaN leaves out.
struct Exponent_full {
    using Word = std::uint64_t;

    KXM_ALWAYS_INLINE Word operator()(Word word) const {
        return ((word & 0x7ff0000000000000) + 0x0010000000000000) >> 63;
    }
};

template <typename T> struct Equal {
    using Word = T;
    Word pattern;

    KXM_ALWAYS_INLINE Word operator()(Word word) const {
        return static_cast<Word>(word == pattern);
    }
};

// The memory may have held anything and lie anywhere.
template <typename Word> KXM_ALWAYS_INLINE Word word_at(const void* memory, std::size_t index) {
    Word word;
    std::memcpy(&word, static_cast<const unsigned char*>(memory) + index * sizeof word,
                sizeof word);
    return word;
}

/// The first index at which a block of `memory` begins that may hold a find, or at which less than a
/// block is left. `from` counts in words.
template <typename Find>
KXM_ALWAYS_INLINE std::size_t skip(const void* memory, std::size_t from, std::size_t count,
                                   Find find) {
    using Word = typename Find::Word;
    for (; count - from >= block_words; from += block_words) {
        Word found = 0;
        for (std::size_t i = 0; i < block_words; ++i) {
            found |= find(word_at<Word>(memory, from + i));
        }
        if (found != 0) {
            break;
        }
    }
    return from;
}

template <typename Find>
KXM_WIDE_UNITS std::size_t skip_wide(const void* memory, std::size_t from, std::size_t count,
                                     Find find) {
    return skip(memory, from, count, find);
}

/// Calls report(index) for every word that may be a find, in order.
template <typename Find, typename Report>
void scan(const void* memory, std::size_t count, Find find, Report report) {
    const bool wide = os::has_wide_units();
    for (std::size_t i = 0; i < count;) {
        i = wide ? skip_wide(memory, i, count, find) : skip(memory, i, count, find);
        const std::size_t end = count - i < block_words ? count : i + block_words;
        for (; i < end; ++i) {
            if (find(word_at<typename Find::Word>(memory, i)) != 0) {
                report(i);
            }
        }
    }
}

template <typename Word>
void scan_for_pattern(const void* memory, Word pattern, std::uint64_t byte_count) {
    const auto shown = static_cast<std::uint32_t>(pattern); // the low half of a wide one
    scan(memory, byte_count / sizeof pattern, Equal<Word>{pattern}, [shown](std::size_t index) {
        std::fprintf(stderr, "*** PATTERN FOUND at mem[%llu]: %x\n",
                     static_cast<unsigned long long>(index), shown);
    });
}

// Beyond what caches hold, a store that goes past them saves reading what it overwrites.
constexpr std::size_t past_caches_from = std::size_t{256} << 20;

void store_past_caches(unsigned char* place, std::uint64_t word) {
    _mm_stream_si64(reinterpret_cast<long long*>(place), static_cast<long long>(word));
}

void store_past_caches(unsigned char* place, std::uint32_t word) {
    _mm_stream_si32(reinterpret_cast<int*>(place), static_cast<int>(word));
}

template <typename Word> void fill(void* memory, Word pattern, std::uint64_t byte_count) {
    if (MC_RESULT == nullptr) {
        return;
    }
    auto* const bytes = static_cast<unsigned char*>(memory);
    const std::size_t end = byte_count / sizeof pattern * sizeof pattern;
    if (end >= past_caches_from) {
        for (std::size_t i = 0; i < end; i += sizeof pattern) {
            store_past_caches(bytes + i, pattern);
        }
        _mm_sfence(); // for a thread that is told of the memory next
        return;
    }
    for (std::size_t i = 0; i < end; i += sizeof pattern) {
        std::memcpy(bytes + i, &pattern, sizeof pattern);
    }
}

} // namespace

void KXMBasMemoryScan(char const* name, double const* values, std::uint64_t count,
                      KXMBasMemoryScanType type, char const* file, int line) {
    if (values == nullptr || count == 0) {
        return;
    }
    if (type != KXMBasMemoryScanNan) {
        std::fprintf(stderr, "*** Error: KXMBasMemoryScan for type %d is not implemented\n", type);
        return;
    }
    scan(values, count, Exponent_full{}, [=](std::size_t index) {
        if (omi_isnan(values[index])) {
            std::printf("*** NAN found at %s[%llu]: %12.2E at %s, line %d\n", name,
                        static_cast<unsigned long long>(index), values[index], file, line);
        }
    });
}

void KXMBasMemoryScan(void* memory, std::uint64_t pattern, std::uint64_t byteCount) {
    scan_for_pattern(memory, pattern, byteCount);
}

void KXMBasMemoryScan(void* memory, int pattern, std::uint64_t byteCount) {
    scan_for_pattern(memory, std::bit_cast<std::uint32_t>(pattern), byteCount);
}

void KXMBasMemoryInit(void* memory, std::uint64_t pattern, std::uint64_t byteCount) {
    fill(memory, pattern, byteCount);
}

void KXMBasMemoryInit(void* memory, int pattern, std::uint64_t byteCount) {
    fill(memory, std::bit_cast<std::uint32_t>(pattern), byteCount);
}
