// See the header.
#include "diagnostics/shared_text.h"

#include <algorithm>
#include <atomic>

namespace shared_text {
namespace {

// `text` may be such a buffer itself, and then it changes while it is read.
char read(const char* place) {
    return std::atomic_ref(const_cast<char&>(*place)).load(std::memory_order_relaxed);
}

} // namespace

std::int32_t store(char* buffer, std::size_t size, std::size_t capacity, const char* text) {
    if (text == nullptr) {
        text = "(null)";
    }
    const std::size_t room = std::min(size, capacity);
    std::size_t length = 0;
    for (;; ++length) {
        const char next = read(text + length);
        if (length < room) {
            std::atomic_ref(buffer[length]).store(next, std::memory_order_relaxed);
        }
        if (next == '\0') {
            break;
        }
    }
    return length <= capacity ? static_cast<std::int32_t>(length) : -1;
}

} // namespace shared_text
