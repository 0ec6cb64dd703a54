// Figures of the process, the machine and its drives on Linux, read from /proc and statfs without
// allocating.
#include "platform/os.h"

#include "platform/linux/read_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace os {
namespace {

constexpr std::uint64_t user_space_bytes = 0x7fff'ffff'f000;

// Bytes of a line "\nName:   123 kB"; 0 when there is none.
std::uint64_t kilobytes_of(const char* text, const char* name) {
    return number_behind(text, name) * 1024;
}

std::uint64_t address_space_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
        limit.rlim_cur < user_space_bytes) {
        return limit.rlim_cur;
    }
    return user_space_bytes;
}

// All of it where the process's size cannot be read.
std::uint64_t address_space_left() {
    const std::uint64_t limit = address_space_limit();
    char text[16384];
    const std::uint64_t used =
        read_file("/proc/self/status", text) ? kilobytes_of(text, "\nVmSize:") : 0;
    return limit > used ? limit - used : 0;
}

std::uint32_t percent_used(std::uint64_t total, std::uint64_t available) {
    return static_cast<std::uint32_t>(100 - 100 * available / total);
}

} // namespace

// Private bytes are the writable private mappings (VmData), touched or not, which is what the
// reference system calls committed. The kernel keeps no peak of them, only one of the whole address
// space (VmPeak): the peak is that one less what is not private now, which is exact as long as
// shared and read-only mappings stay as they are, and never below the present figure.
bool process_memory(ProcessMemory& figures) {
    char text[16384]; // a long list of groups stands before the lines that are wanted
    if (!read_file("/proc/self/status", text)) {
        return false;
    }
    const std::uint64_t size_now = kilobytes_of(text, "\nVmSize:");
    const std::uint64_t size_peak = kilobytes_of(text, "\nVmPeak:");
    const std::uint64_t private_now = kilobytes_of(text, "\nVmData:");
    if (size_now == 0 || private_now == 0) {
        return false;
    }
    const std::uint64_t other = size_now > private_now ? size_now - private_now : 0;
    const std::uint64_t private_peak = size_peak > other ? size_peak - other : 0;
    figures.private_bytes = private_now;
    figures.peak_private_bytes = private_peak > private_now ? private_peak : private_now;
    figures.resident_bytes = kilobytes_of(text, "\nVmRSS:");
    return true;
}

bool machine_memory(MachineMemory& figures) {
    char text[8192];
    if (!read_file("/proc/meminfo", text)) {
        return false;
    }
    // The first line has no newline before it.
    const std::uint64_t total = kilobytes_of(text, "MemTotal:");
    const std::uint64_t available = std::min(kilobytes_of(text, "\nMemAvailable:"), total);
    if (total == 0) {
        return false;
    }
    figures.total_physical = total;
    figures.available_physical = available;
    figures.load_percent = percent_used(total, available);
    figures.total_page_file = total + kilobytes_of(text, "\nSwapTotal:");
    figures.available_page_file = available + kilobytes_of(text, "\nSwapFree:");
    figures.total_virtual = address_space_limit();
    figures.available_virtual = address_space_left();
    figures.available_extended_virtual = 0;
    return true;
}

// Needs no /proc. Memory that the kernel would give up its caches for does not count as available.
void older_machine_memory(OlderMachineMemory& figures) {
    struct sysinfo info {};
    if (sysinfo(&info) != 0 || info.totalram == 0) {
        figures.total_physical = figures.available_physical = ~std::uint64_t{0};
        return;
    }
    const std::uint64_t unit = info.mem_unit;
    figures.total_physical = info.totalram * unit;
    figures.available_physical = (info.freeram + info.bufferram) * unit;
    figures.load_percent = percent_used(figures.total_physical, figures.available_physical);
    figures.total_page_file = figures.total_physical + info.totalswap * unit;
    figures.available_page_file = figures.available_physical + info.freeswap * unit;
    figures.total_virtual = address_space_limit();
    figures.available_virtual = address_space_left();
}

std::uint32_t process_id() {
    return static_cast<std::uint32_t>(getpid());
}

std::uint32_t drive_type(const char* root) {
    struct statfs figures {};
    if (statfs(root, &figures) != 0) {
        return 1;
    }
    switch (static_cast<unsigned long>(figures.f_type)) {
    case NFS_SUPER_MAGIC:
    case SMB_SUPER_MAGIC:
    case CIFS_SUPER_MAGIC:
    case SMB2_SUPER_MAGIC:
    case AFS_SUPER_MAGIC:
    case CODA_SUPER_MAGIC:
    case CEPH_SUPER_MAGIC:
    case V9FS_MAGIC:
    case 0x0bd00bd0: // the parallel file systems of large machines, which no header names
    case 0x47504653:
    case 0x19830326:
        return 4;
    case ISOFS_SUPER_MAGIC:
    case UDF_SUPER_MAGIC:
        return 5;
    case TMPFS_MAGIC:
    case RAMFS_MAGIC:
        return 6;
    default:
        return figures.f_blocks == 0 ? 0 : 3; // the kernel's own, such as /proc, are no drive
    }
}

bool drive_space(const char* root, DriveSpace& space) {
    struct statvfs figures {};
    if (statvfs(root != nullptr ? root : ".", &figures) != 0) {
        return false;
    }
    space.sectors_per_cluster = 1; // the system counts in fragments alone
    space.bytes_per_sector = static_cast<std::uint32_t>(figures.f_frsize);
    space.free_clusters = figures.f_bavail;
    space.total_clusters = figures.f_blocks;
    return true;
}

std::uint32_t last_error() {
    return static_cast<std::uint32_t>(errno);
}

KeptError::KeptError() : errno_(errno), last_(0) {}

KeptError::~KeptError() {
    static_cast<void>(last_); // the same as errno here
    errno = errno_;
}

std::size_t error_text(std::uint32_t code, char* buffer, std::size_t capacity) {
    const char* const text = strerrordesc_np(static_cast<int>(code));
    if (text == nullptr || capacity == 0) {
        return 0;
    }
    const std::size_t length = strnlen(text, capacity - 1);
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
    return length;
}

} // namespace os
