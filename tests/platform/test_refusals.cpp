// What a system seldom does: places and calls that it refuses, files of /proc that tell other things, file systems
// that are not here. Functions of this program stand in front of the C library's for what this room calls.
#include "platform/os.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <map>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/vfs.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t unit = 65536;

// What the calls do while the test plays; nothing is played outside its scope.
struct Play {
    std::set<std::string> refused;      // names of calls
    std::size_t mmaps_refused_from = 0; // bytes
    int munmaps_passed = -1;            // how many of them pass before one is refused
    bool occupied = false;              // every place that is asked for exactly
    bool hint_only = false;             // such a place is taken for a hint
    std::size_t off = 0;        // of what the kernel places by itself: bytes behind a unit's start
    const char* text = nullptr; // in the next file
    long magic = 0;             // of every file system
};
Play* play = nullptr;

bool refuses(const char* call, int error) {
    if (play == nullptr || play->refused.count(call) == 0) {
        return false;
    }
    errno = error;
    return true;
}

template <class... Arguments> long really(long number, Arguments... arguments) {
    return syscall(number, arguments...);
}

class Playing : public Play {
public:
    Playing() { play = this; }
    ~Playing() { play = nullptr; }
};

} // namespace

extern "C" {

void* mmap(void* place, size_t size, int protection, int flags, int file, off_t offset) noexcept {
    if (play != nullptr && (flags & MAP_FIXED_NOREPLACE) != 0) {
        if (play->occupied) {
            errno = EEXIST;
            return MAP_FAILED;
        }
        if (play->hint_only) {
            flags &= ~MAP_FIXED_NOREPLACE;
            place = nullptr;
        }
    } else if ((play == nullptr || size >= play->mmaps_refused_from) && refuses("mmap", ENOMEM)) {
        return MAP_FAILED;
    } else if (play != nullptr && play->off != 0) { // a place as this kernel might not choose it
        const long got = really(SYS_mmap, place, size + 2 * unit, protection, flags, file, offset);
        const auto base = static_cast<std::uintptr_t>(got), end = base + size + 2 * unit,
                   chosen = (base + unit - 1) / unit * unit + play->off % unit;
        if (chosen != base) {
            really(SYS_munmap, base, chosen - base);
        }
        really(SYS_munmap, chosen + size, end - chosen - size);
        return reinterpret_cast<void*>(chosen);
    }
    return reinterpret_cast<void*>(really(SYS_mmap, place, size, protection, flags, file, offset));
}

int munmap(void* place, size_t size) noexcept {
    if (play != nullptr && play->munmaps_passed >= 0 && play->munmaps_passed-- == 0) {
        errno = ENOMEM;
        return -1;
    }
    return static_cast<int>(really(SYS_munmap, place, size));
}

int open(const char* name, int flags, ...) {
    std::va_list more;
    va_start(more, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(more, int) : 0;
    va_end(more);
    return refuses("open", EMFILE)
               ? -1
               : static_cast<int>(really(SYS_openat, AT_FDCWD, name, flags, mode));
}

ssize_t read(int file, void* to, size_t size) {
    if (play != nullptr && play->text != nullptr) {
        const std::size_t length = std::min(size, std::strlen(play->text));
        std::memcpy(to, play->text, length);
        play->text += length;
        return static_cast<ssize_t>(length);
    }
    return really(SYS_read, file, to, size);
}

int statfs(const char* root, struct statfs* figures) noexcept {
    const long status = really(SYS_statfs, root, figures);
    figures->f_type = play != nullptr && play->magic != 0 ? play->magic : figures->f_type;
    return static_cast<int>(status);
}

int sysinfo(struct sysinfo* figures) noexcept {
    return refuses("sysinfo", EFAULT) ? -1 : static_cast<int>(really(SYS_sysinfo, figures));
}

int getrlimit(__rlimit_resource_t resource, struct rlimit* limit) noexcept {
    return refuses("getrlimit", EFAULT)
               ? -1
               : static_cast<int>(really(SYS_prlimit64, 0, resource, nullptr, limit));
}

char* getcwd(char* buffer, size_t size) noexcept {
    return refuses("getcwd", ENOENT) || really(SYS_getcwd, buffer, size) < 0 ? nullptr : buffer;
}

int sigaltstack(const stack_t* stack, stack_t* before) noexcept {
    return refuses("sigaltstack", EPERM) ? -1
                                         : static_cast<int>(really(SYS_sigaltstack, stack, before));
}

} // extern "C"

namespace {

std::uint64_t address_space_used() {
    char text[200] = {};
    const int file =
        static_cast<int>(really(SYS_openat, AT_FDCWD, "/proc/self/statm", O_RDONLY, 0));
    really(SYS_read, file, text, sizeof text - 1);
    close(file);
    return std::strtoull(text, nullptr, 10);
}

// Wherever the kernel places it, aligned or not, and nothing left of a place that could not be cut to size.
TEST(Refusals, OfAPlaceAreMadeUpForElsewhereOrLeaveNothing) {
    os::vm_release(os::vm_allocate(unit, os::Placement::segment));
    for (const auto placement : {os::Placement::segment, os::Placement::direct}) {
        Playing playing;
        for (const bool hint_only : {true, false}) {
            playing.hint_only = hint_only;
            playing.occupied = !hint_only;
            for (const std::size_t off : {std::size_t{8192}, unit}) { // and at a unit's start
                playing.off = off;
                auto* const block = static_cast<char*>(os::vm_allocate(3 * unit, placement));
                ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % unit, 0U);
                ASSERT_NE(block, nullptr);
                block[0] = block[3 * unit - 1] = 1;
                EXPECT_TRUE(os::vm_release(block));
            }
        }
        playing.off = 8192;
        const std::uint64_t used = address_space_used();
        for (const int passed : {0, 1}) { // in front of the block, and behind it
            playing.munmaps_passed = passed;
            EXPECT_EQ(os::vm_allocate(3 * unit, placement), nullptr);
            EXPECT_EQ(address_space_used(), used);
        }
        playing.off = 0;
        playing.refused = {"mmap"};
        EXPECT_EQ(os::vm_allocate(3 * unit, placement), nullptr);
    }
    void* const kept = os::vm_allocate(unit, os::Placement::direct);
    {
        Playing playing;
        playing.munmaps_passed = 0;
        EXPECT_FALSE(os::vm_release(kept)) << "still there";
        playing.refused = {"mmap"}; // a page of the map of what is held, which that many bytes want
        const std::uint64_t used = address_space_used();
        EXPECT_EQ(os::vm_allocate(std::size_t{3} << 30, os::Placement::direct), nullptr);
        EXPECT_EQ(address_space_used(), used);
    }
    EXPECT_TRUE(os::vm_release(kept));
}

// The table of allocations is full and cannot grow: all that is in it stays, and it grows later.
TEST(Refusals, OfALargerTableRefuseTheAllocationAlone) {
    std::vector<void*> blocks;
    {
        Playing playing;
        playing.refused = {"mmap"};
        playing.mmaps_refused_from = unit; // not the pages of the map of what is held
        while (void* const block = os::vm_allocate(4096, os::Placement::direct)) {
            blocks.push_back(block);
            ASSERT_LT(blocks.size(), 200000U);
        }
    }
    EXPECT_GE(blocks.size(), 4096U - 100); // which is the table's first size
    for (int i = 0; i < 5000; ++i) {
        blocks.push_back(os::vm_allocate(4096, os::Placement::direct));
        ASSERT_NE(blocks.back(), nullptr);
    }
    for (void* const block : blocks) {
        ASSERT_TRUE(os::vm_release(block));
    }
}

TEST(Refusals, OfFilesAndFiguresAreTold) {
    os::ProcessMemory process{};
    os::MachineMemory machine;
    os::OlderMachineMemory older;
    os::Region region{};
    {
        Playing playing;
        playing.refused = {"open"};
        EXPECT_FALSE(os::process_memory(process) || os::machine_memory(machine));
        playing.refused.clear();
        for (const char* const text :
             {"Name: x\n", "Name:\nVmSize: 5 kB\n", "Name:\nVmData: 5 kB\n"}) {
            playing.text = text;
            EXPECT_FALSE(os::process_memory(process)) << text;
        }
        playing.text = "MemTotal: 0 kB\nMemAvailable: 5 kB\n";
        EXPECT_FALSE(os::machine_memory(machine));
        playing.text = nullptr;
        playing.refused = {"open"};
        EXPECT_FALSE(os::vm_query(&region, region));
        playing.refused = {"sysinfo", "getrlimit", "getcwd"};
        os::older_machine_memory(older);
        EXPECT_EQ(older.total_physical & older.available_physical, ~std::uint64_t{0});
        EXPECT_TRUE(os::machine_memory(machine));
        EXPECT_EQ(machine.total_virtual, 0x7fff'ffff'f000U);
        char folder[10];
        EXPECT_FALSE(os::current_directory(folder, sizeof folder));
    }
    EXPECT_EQ(os::error_text(2, nullptr, 0), 0U);
}

// Lines as other kernels might write them, and one that is longer than is kept; no end of the last.
TEST(ProcessMap, TellsMappingsByTheirLines) {
    const std::string text = "10000-20000 --xp 0 00:00 0 \n20000-30000 -w-p 0 00:00 0 [heap]\n"
                             "40000-50000 r--s 0 00:00 7 /" +
                             std::string(3000, 'f') +
                             "\n60000 61000\n70000-71000\nab0000-ac0000 ---p 0 00:00 0";
    Playing playing;
    playing.text = text.c_str();
    os::UpwardQueries queries;
    const auto told = [&queries](std::uintptr_t address) {
        os::Region region{};
        return queries.query(reinterpret_cast<void*>(address), region) ? region
                                                                       : os::Region{0, 0, 0, 0, 0};
    };
    const os::Region expected[] = {
        {0, 0, 0x10000, os::state_free, 0},
        {0x10000, 0x10000, 0x10000, os::state_commit, os::type_private},
        {0x21000, 0x20000, 0xf000, os::state_commit, os::type_private},
        {0x30000, 0, 0x10000, os::state_free, 0},
        {0x40000, 0x40000, 0x10000, os::state_commit, os::type_mapped},
        {0xab0000, 0xab0000, 0x10000, os::state_reserve, os::type_private},
        {0xac0000, 0, 0x7fff'ffff'f000 - 0xac0000, os::state_free, 0}};
    for (const os::Region& wanted : expected) {
        const os::Region found = told(wanted.base);
        EXPECT_EQ(
            std::tie(found.base, found.allocation_base, found.size, found.state, found.type),
            std::tie(wanted.base, wanted.allocation_base, wanted.size, wanted.state, wanted.type))
            << std::hex << wanted.base;
    }
    EXPECT_EQ(told(0x7fff'ffff'f000).size, 0U);
}

TEST(DriveType, IsToldByTheFileSystem) {
    const std::map<std::uint32_t, std::vector<long>> kinds{
        {4,
         {NFS_SUPER_MAGIC, SMB_SUPER_MAGIC, 0xff534d42, 0xfe534d42, AFS_SUPER_MAGIC,
          CODA_SUPER_MAGIC, 0x00c36400, V9FS_MAGIC, 0x0bd00bd0, 0x47504653, 0x19830326}},
        {5, {ISOFS_SUPER_MAGIC, 0x15013346}},
        {6, {TMPFS_MAGIC, RAMFS_MAGIC}},
        {3, {EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC}}};
    Playing playing;
    for (const auto& [kind, magics] : kinds) {
        for (const long magic : magics) {
            playing.magic = magic;
            EXPECT_EQ(os::drive_type("/"), kind) << std::hex << magic;
        }
    }
}

void fault(void*) {
    static_cast<void>(os::read_word_unchecked(reinterpret_cast<void*>(8)));
}

// Without a stack for its handler a guarded call catches what the thread's own stack has room for.
TEST(Refusals, OfAHandlersStackLeaveTheGuard) {
    Playing playing;
    playing.refused = {"sigaltstack"};
    EXPECT_FALSE(os::guarded_call(fault, nullptr));
    playing.refused = {"mmap"}; // which the second of two threads at a time needs
    EXPECT_TRUE(os::guarded_call(
        [](void*) { std::thread([] { EXPECT_FALSE(os::guarded_call(fault, nullptr)); }).join(); },
        nullptr));
}

} // namespace
