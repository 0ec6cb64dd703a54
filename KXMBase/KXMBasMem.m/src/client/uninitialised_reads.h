// The detector of uninitialised reads, as KXMBasMemAllocator uses it. The header of that class tells
// what it does. Decided once per process, on or off. No lock: threads may share block numbers, and
// their lines may mix.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/compiler.h"
#include "platform/relaxed_word.h"

namespace uninitialised_reads {

inline constexpr std::int32_t unread = -99999; // a variable that was not asked for yet

/// KXA_UMR_PRINT. Positive means on, and is the number of lines for a block.
KXM_HIDDEN extern os::relaxed_word<std::int32_t> umrPrintLimit;

/// False costs one comparison. True means on, or not decided yet, or off by an odd value.
inline bool may_prepare() {
    return umrPrintLimit != 0;
}
inline bool may_scan() {
    return umrPrintLimit > 0;
}

/// What to ask for in place of `size`, so that the block's number lies in memory of its own.
std::size_t room_for_number(std::size_t size);

/// Fills and numbers a block of room_for_number(size) bytes. The first call decides.
void prepare(void* block, std::size_t size);

/// Looks at a block that goes. Any block is allowed, and null.
void scan(void* block);

} // namespace uninitialised_reads
