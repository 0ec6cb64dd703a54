// See own_view.h.
#include "own_view.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace test {
namespace {

constexpr std::uint64_t user_space_end = 0x7fff'ffff'f000;

struct Line {
    std::uint64_t start, end;
    std::string access, file;
};

std::vector<Line> map_lines() {
    std::vector<Line> lines;
    std::ifstream map("/proc/self/maps");
    for (std::string text; std::getline(map, text);) {
        Line line;
        char dash = 0;
        std::string offset, device, inode;
        std::istringstream words(text);
        words >> std::hex >> line.start >> dash >> line.end >> line.access >> offset >> device >>
            inode >> line.file;
        if (line.end <= user_space_end) {
            lines.push_back(line);
        }
    }
    return lines;
}

void* at(std::uint64_t address) {
    return reinterpret_cast<void*>(address);
}

} // namespace

const std::string drive_root = "/";
const std::string no_drive_root = "/no such folder/";

std::uint64_t physical_bytes() {
    return static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) * 4096;
}

std::uint64_t available_bytes() {
    std::ifstream figures("/proc/meminfo");
    std::string name;
    std::uint64_t kilobytes = 0;
    while (name != "MemAvailable:" && figures >> name) {
    }
    figures >> kilobytes;
    return kilobytes * 1024;
}

std::uint64_t address_space_bytes() {
    rlimit limit{};
    getrlimit(RLIMIT_AS, &limit);
    return limit.rlim_cur == RLIM_INFINITY ? user_space_end : limit.rlim_cur;
}

std::uint64_t private_bytes() {
    std::uint64_t sum = 0;
    for (const Line& line : map_lines()) {
        if (line.access[1] == 'w' && line.access[3] == 'p' && line.file != "[stack]") {
            sum += line.end - line.start;
        }
    }
    return sum;
}

std::uint64_t resident_bytes() {
    std::ifstream figures("/proc/self/statm");
    std::uint64_t size = 0, resident = 0;
    figures >> size >> resident;
    return resident * 4096;
}

std::uint64_t drive_bytes(const std::string& root) {
    return std::filesystem::space(root).capacity;
}

std::uint64_t drive_free_bytes(const std::string& root) {
    return std::filesystem::space(root).available;
}

std::vector<MapRegion> low_map() {
    std::vector<MapRegion> regions;
    std::uint64_t end = 0;
    for (const Line& line : map_lines()) {
        if (line.start > end) {
            regions.push_back({end, line.start - end, 65536, 0});
        }
        end = line.end;
        const bool reserved = line.access.substr(0, 3) == "---";
        const bool is_private = line.access[3] == 'p';
        const bool of_file = line.file[0] == '/';
        regions.push_back({line.start, line.end - line.start, reserved ? 8192U : 4096U,
                           !of_file     ? 131072U
                           : is_private ? 16777216U
                                        : 262144U});
    }
    while (regions.back().start > INT32_MAX) {
        regions.pop_back();
    }
    return regions;
}

std::uint64_t reserved_bytes() {
    std::uint64_t sum = 0;
    for (const Line& line : map_lines()) {
        sum += line.access.substr(0, 3) == "---" ? line.end - line.start : 0;
    }
    return sum;
}

bool claim(std::uint64_t address, std::size_t size, bool committed) {
    return mmap(at(address), size, committed ? PROT_READ | PROT_WRITE : PROT_NONE,
                MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0) == at(address);
}

void give_back(std::uint64_t address, std::size_t size) {
    munmap(at(address), size);
}

bool limit_address_space(std::uint64_t bytes) {
    const rlimit limit{bytes, bytes};
    return setrlimit(RLIMIT_AS, &limit) == 0;
}

} // namespace test
