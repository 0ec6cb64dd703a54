// Unbuffered binary files on Windows.
#include "platform/os.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <io.h>

namespace os {
namespace {

constexpr int flags = _O_BINARY | _O_RDWR | _O_CREAT | _O_TRUNC;
static_assert(flags == 0x8302);
constexpr int permissions = 0640;

} // namespace

File file_create(const char* name) {
    return _open(name, flags, permissions);
}

File file_create_wide(const unsigned short* name) {
    static_assert(sizeof(wchar_t) == sizeof(unsigned short));
    return _wopen(reinterpret_cast<const wchar_t*>(name), flags, permissions);
}

std::int64_t file_write(File file, const void* data, std::size_t size) {
    // The call counts in int: larger writes go in pieces.
    std::size_t written = 0;
    while (written < size) {
        const auto piece = static_cast<unsigned>(std::min<std::size_t>(size - written, 1U << 30));
        const int step = _write(file, static_cast<const char*>(data) + written, piece);
        if (step <= 0) {
            return written != 0 ? static_cast<std::int64_t>(written) : -1;
        }
        written += static_cast<std::size_t>(step);
    }
    return static_cast<std::int64_t>(written);
}

std::int64_t file_seek(File file, std::int64_t offset) {
    return _lseeki64(file, offset, 0);
}

bool file_close(File file) {
    return _close(file) == 0;
}

} // namespace os
