// Small files of the system, read without allocating.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace os {

// The whole of a small file of /proc, NUL-terminated; false, too, where a read fails on the way, for then it is not known
// what is missing.
template <std::size_t Capacity> bool read_file(const char* name, char (&text)[Capacity]) {
    const int file = open(name, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    std::size_t filled = 0;
    ssize_t got = 1;
    while (got != 0 && filled + 1 < Capacity) {
        got = read(file, text + filled, Capacity - 1 - filled);
        if (got < 0 && errno != EINTR) {
            break;
        }
        filled += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    close(file);
    text[filled] = '\0';
    return filled != 0 && got >= 0;
}

// The number that stands behind `name` in such a file's text; `otherwise` where the name is not there.
inline std::uint64_t number_behind(const char* text, const char* name,
                                   std::uint64_t otherwise = 0) {
    const char* const found = std::strstr(text, name);
    return found != nullptr ? std::strtoull(found + std::strlen(name), nullptr, 10) : otherwise;
}

} // namespace os
