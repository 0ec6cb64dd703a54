// See self.h.
#include "self.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace memtrack::platform {
namespace {

// A line "NAME:  123 kB" of the process's status, in bytes; 0 when there is none.
std::uint64_t status_bytes(const char* name) {
    char text[4096];
    const int file = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return 0;
    }
    const ssize_t got = read(file, text, sizeof text - 1);
    close(file);
    text[got > 0 ? got : 0] = '\0';
    const char* const line = std::strstr(text, name);
    return line != nullptr ? 1024 * std::strtoull(line + std::strlen(name), nullptr, 10) : 0;
}

} // namespace

void* map_memory(std::size_t bytes) {
    void* const memory =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory != MAP_FAILED ? memory : nullptr;
}

std::uint64_t resident_bytes() {
    return status_bytes("\nVmRSS:");
}

std::uint64_t peak_resident_bytes() {
    return status_bytes("\nVmHWM:");
}

void forget_peak_resident() {
    const int file = open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC);
    if (file >= 0) {
        [[maybe_unused]] const ssize_t written = write(file, "5", 1);
        close(file);
    }
}

bool read_input(void* data, std::size_t size) {
    for (auto* at = static_cast<char*>(data); size != 0;) {
        const ssize_t got = read(0, at, size);
        if (got > 0) {
            at += got;
            size -= static_cast<std::size_t>(got);
        } else if (got == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool write_output(const void* data, std::size_t size) {
    return write(1, data, size) == static_cast<ssize_t>(size); // a pipe takes so little at once
}

void use_binary_streams() {}

const char* home_of_malloc() {
    Dl_info info;
    void* const address = dlsym(RTLD_DEFAULT, "malloc");
    return address != nullptr && dladdr(address, &info) != 0 ? info.dli_fname : "";
}

} // namespace memtrack::platform
