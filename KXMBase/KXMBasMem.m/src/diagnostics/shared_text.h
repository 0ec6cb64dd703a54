// Texts in static buffers that threads may write at the same time. They take no lock, since a
// failure report must never wait: two writers leave a mixture of their texts.
#pragma once

#include <cstddef>
#include <cstdint>

namespace shared_text {

/// Stores `text` as a bounded print with "%s" at `capacity` does, and returns what that returns:
/// with length L and capacity c, L < c stores text and NUL and gives L; L == c stores the text alone
/// and gives L; L > c stores c characters and gives -1. What would lie beyond the `size` bytes of
/// `buffer` is left out. A null `text` reads "(null)".
std::int32_t store(char* buffer, std::size_t size, std::size_t capacity, const char* text);

} // namespace shared_text
