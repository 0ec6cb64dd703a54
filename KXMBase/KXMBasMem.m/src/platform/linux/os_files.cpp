// Unbuffered binary files on Linux. Wide names are UTF-16 and are opened by their UTF-8 form; an
// unpaired surrogate that stands for a byte is opened as that byte, since a name may hold any.
#include "platform/linux/utf16.h"
#include "platform/os.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace os {
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
