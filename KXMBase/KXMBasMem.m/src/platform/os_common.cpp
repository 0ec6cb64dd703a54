// The part of the platform that standard C++ provides on every system: the bounded print.
#include "platform/os.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace os {

int bounded_print(char* buffer, std::size_t capacity, const char* format, ...) {
    // The standard print always keeps a place for the NUL and this one does not, so the text is
    // made in a scratch that has one place more than the caller's buffer.
    char scratch[max_bounded_print + 1];
    capacity = std::min(capacity, max_bounded_print);

    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(scratch, capacity + 1, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return -1;
    }
    const auto needed = static_cast<std::size_t>(length);
    std::memcpy(buffer, scratch, std::min(needed + 1, capacity));
    return needed <= capacity ? length : -1;
}

} // namespace os
