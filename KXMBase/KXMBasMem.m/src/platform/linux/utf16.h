// UTF-8 and UTF-16: wide names and texts are UTF-16 on every system.
#pragma once

#include <cstddef>

namespace os {

/// UTF-8 of a wide text, terminated; false when it does not fit or holds an unpaired surrogate. But
/// 0xdc80 to 0xdcff become the bytes that utf16_of made them from.
bool utf8_of(const unsigned short* wide, char* narrow, std::size_t capacity);

/// UTF-16 of a narrow text, terminated and cut to `capacity` - 1; returns its length. A byte that is
/// no UTF-8 becomes 0xdc00 plus itself. pre: capacity > 0.
std::size_t utf16_of(const char* narrow, unsigned short* wide, std::size_t capacity);

} // namespace os
