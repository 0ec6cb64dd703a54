// Unbuffered binary files on Linux. Wide names are UTF-16 and are opened by their UTF-8 form.
#include "platform/os.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace os {
namespace {

// False when the name holds an unpaired surrogate or does not fit.
bool utf8_of(const unsigned short* wide, char* narrow, std::size_t capacity) {
    std::size_t at = 0;
    const auto put = [&](unsigned byte) {
        if (at + 1 < capacity) {
            narrow[at++] = static_cast<char>(static_cast<unsigned char>(byte));
            return true;
        }
        return false;
    };
    while (*wide != 0) {
        unsigned code = *wide++;
        if (code >= 0xd800 && code < 0xe000) {
            const unsigned low = *wide;
            if (code >= 0xdc00 || low < 0xdc00 || low >= 0xe000) {
                return false;
            }
            ++wide;
            code = 0x10000 + ((code - 0xd800) << 10) + (low - 0xdc00);
        }
        bool fits = false;
        if (code < 0x80) {
            fits = put(code);
        } else if (code < 0x800) {
            fits = put(0xc0 | (code >> 6)) && put(0x80 | (code & 0x3f));
        } else if (code < 0x10000) {
            fits = put(0xe0 | (code >> 12)) && put(0x80 | ((code >> 6) & 0x3f)) &&
                   put(0x80 | (code & 0x3f));
        } else {
            fits = put(0xf0 | (code >> 18)) && put(0x80 | ((code >> 12) & 0x3f)) &&
                   put(0x80 | ((code >> 6) & 0x3f)) && put(0x80 | (code & 0x3f));
        }
        if (!fits) {
            return false;
        }
    }
    narrow[at] = '\0';
    return true;
}

} // namespace

File file_create(const char* name) {
    int file = -1;
    do {
        file = open(name, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    } while (file < 0 && errno == EINTR);
    return file;
}

File file_create_wide(const unsigned short* name) {
    char narrow[PATH_MAX];
    if (!utf8_of(name, narrow, sizeof narrow)) {
        errno = EILSEQ;
        return -1;
    }
    return file_create(narrow);
}

std::int64_t file_write(File file, const void* data, std::size_t size) {
    // An interrupted or short write goes on where it stopped; only an error ends it early.
    std::size_t written = 0;
    while (written < size) {
        const ssize_t step = write(file, static_cast<const char*>(data) + written, size - written);
        if (step < 0 && errno == EINTR) {
            continue;
        }
        if (step <= 0) {
            return written != 0 ? static_cast<std::int64_t>(written) : -1;
        }
        written += static_cast<std::size_t>(step);
    }
    return static_cast<std::int64_t>(written);
}

std::int64_t file_seek(File file, std::int64_t offset) {
    return lseek(file, offset, SEEK_SET);
}

bool file_close(File file) {
    return close(file) == 0;
}

} // namespace os
