// See self.h. The system cannot forget the highest working set: what a process takes before it is measured
// must be less than what it takes then.
#include "self.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <psapi.h>

namespace memtrack::platform {
namespace {

PROCESS_MEMORY_COUNTERS counters() {
    PROCESS_MEMORY_COUNTERS figures{};
    figures.cb = sizeof figures;
    K32GetProcessMemoryInfo(GetCurrentProcess(), &figures, sizeof figures);
    return figures;
}

} // namespace

void* map_memory(std::size_t bytes) {
    return VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

std::uint64_t resident_bytes() {
    return counters().WorkingSetSize;
}

std::uint64_t peak_resident_bytes() {
    return counters().PeakWorkingSetSize;
}

void forget_peak_resident() {}

bool read_input(void* data, std::size_t size) {
    for (auto* at = static_cast<char*>(data); size != 0;) {
        const int got = _read(0, at, static_cast<unsigned>(size));
        if (got <= 0) {
            return false;
        }
        at += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

bool write_output(const void* data, std::size_t size) {
    return _write(1, data, static_cast<unsigned>(size)) == static_cast<int>(size);
}

void use_binary_streams() {
    _setmode(0, _O_BINARY);
    _setmode(1, _O_BINARY);
}

const char* home_of_malloc() {
    return "";
}

} // namespace memtrack::platform
