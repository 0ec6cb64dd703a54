// See mem_GetWindowsErrorText.h.
#include "mem_GetWindowsErrorText.h"

#include <algorithm>

#include "platform/os.h"

mem_String mem_GetWindowsErrorText(int code) {
    char text[4096]; // several times the longest that a system has
    const std::size_t length = os::error_text(static_cast<std::uint32_t>(code), text, sizeof text);
    if (length == 0) {
        return {};
    }
    char* const end =
        std::remove_if(text, text + length, [](char c) { return c == '\r' || c == '\n'; });
    *end = '\0';
    return text;
}

mem_String mem_GetWindowsLastErrorText() {
    return mem_GetWindowsErrorText(static_cast<int>(os::last_error()));
}
