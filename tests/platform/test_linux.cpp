// What Linux alone has to see to: UTF-16, memory of others where ours should go, calls that the system refuses, and
// signals that are sent.
#include "platform/granule_map.h"
#include "platform/linux/memory_left.h"
#include "platform/linux/symbols.h"
#include "platform/linux/utf16.h"
#include "platform/os.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::string there_and_back(const std::string& text) {
    unsigned short wide[64];
    char back[64];
    os::utf16_of(text.c_str(), wide, 64);
    return os::utf8_of(wide, back, sizeof back) ? back : "does not fit";
}

TEST(Utf16, AnyBytesComeBack) {
    for (const char* text :
         {"\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf", "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf",
          "\xf0\x9f\xb2\x80", // whose second half is in the range that stands for single bytes
          "\xc0\xaf", "\xe0\x9f\xbf", "\xf0\x8f\xbf\xbf", // longer than needed
          "\xed\xb2\x80", "\xed\xa0\xbd\xed\xb2\x80", "\xf4\x90\x80\x80", "\xf5", "\xf0\x9f\xb2"}) {
        EXPECT_EQ(there_and_back(text), text);
    }
    std::mt19937 random(1);
    for (int i = 0; i < 100000; ++i) {
        std::string text;
        for (std::size_t left = random() % 12; left > 0; --left) {
            const char likely[] = "\x80\xbf\x90\x9f\xc2\xe0\xed\xef\xf0\xf4";
            const auto number = static_cast<std::uint32_t>(random());
            text +=
                number % 2 == 0 ? likely[number / 2 % 10] : static_cast<char>(1 + number / 2 % 255);
        }
        ASSERT_EQ(there_and_back(text), text) << testing::PrintToString(text);
    }
}

TEST(Utf16, IsCutBetweenCharactersAndKeepsItsBounds) {
    const std::string text = "a\xc3\xb6\xe4\xb8\xad\xf0\x9f\x98\x80z"; // 1, 2, 3 and 4 bytes, and 1
    unsigned short wide[8];
    for (std::size_t capacity = 1; capacity <= 8; ++capacity) {
        const std::size_t whole[] = {0, 1, 2, 3, 3, 5, 6, 6};
        EXPECT_EQ(os::utf16_of(text.c_str(), wide, capacity), whole[capacity - 1]);
        EXPECT_EQ(wide[whole[capacity - 1]], 0);
    }
    std::string back(text.size() + 2, '#');
    for (std::size_t capacity = 1; capacity <= text.size() + 1; ++capacity) {
        EXPECT_EQ(os::utf8_of(wide, back.data(), capacity), capacity == text.size() + 1)
            << capacity;
        EXPECT_EQ(back[capacity], '#');
    }
    constexpr unsigned short unpaired[][3] = {{0xd800}, {0xd83d, 'x'}, {0xdc00, 0xd83d}, {0xdd00}};
    for (const auto& wrong : unpaired) {
        EXPECT_FALSE(os::utf8_of(wrong, back.data(), 8));
    }
    os::utf16_of("\xff", wide, 8);
    EXPECT_FALSE(os::utf8_of(wide, back.data(), 1)) << "a single byte has no room either";
}

constexpr std::size_t unit = 65536;

// Something of another's at exactly this place.
class Foreign {
public:
    explicit Foreign(std::uintptr_t place)
        : memory_(mmap(reinterpret_cast<void*>(place), unit, PROT_NONE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0)) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory_), place);
    }
    ~Foreign() { munmap(memory_, unit); }
    Foreign(const Foreign&) = delete;
    Foreign& operator=(const Foreign&) = delete;

private:
    void* memory_;
};

std::uintptr_t allocated(os::Placement placement, std::vector<void*>& all) {
    void* const memory = os::vm_allocate(unit, placement);
    EXPECT_NE(memory, nullptr);
    std::memset(memory, 1, unit);
    all.push_back(memory);
    return reinterpret_cast<std::uintptr_t>(memory);
}

TEST(ForeignMemory, IsPassedByAndSegmentsGoOnBehindIt) {
    constexpr std::uintptr_t leap = std::uintptr_t{64} << 30;
    std::vector<void*> all;
    const std::uintptr_t segment = allocated(os::Placement::segment, all);
    {
        const Foreign next(segment + unit);
        const std::uintptr_t beyond = allocated(os::Placement::segment, all);
        EXPECT_EQ(beyond, segment + unit + leap);
        EXPECT_EQ(allocated(os::Placement::segment, all), beyond + unit);
        const Foreign behind(beyond + 2 * unit), first(beyond + 2 * unit + leap),
            second(beyond + 2 * unit + 2 * leap), third(beyond + 2 * unit + 3 * leap),
            fourth(beyond + 2 * unit + 4 * leap);
        const std::uintptr_t anywhere =
            allocated(os::Placement::segment, all); // the kernel's choice
        EXPECT_EQ(anywhere % unit, 0U);
        void* const behind_it = mmap(reinterpret_cast<void*>(anywhere + unit), unit, PROT_NONE,
                                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        EXPECT_EQ(allocated(os::Placement::segment, all) % unit, 0U);
        if (behind_it != MAP_FAILED) { // else there was something already
            munmap(behind_it, unit);
        }
    }
    EXPECT_EQ(allocated(os::Placement::segment, all), segment + 3 * unit + leap)
        << "the way is free again";
    const std::uintptr_t direct = allocated(os::Placement::direct, all);
    {
        const Foreign below(direct - unit);
        EXPECT_LE(allocated(os::Placement::direct, all), direct - unit - leap);
    }
    for (void* const memory : all) {
        os::Region region{};
        EXPECT_TRUE(os::vm_query(memory, region));
        EXPECT_EQ(region.size, unit);
        EXPECT_TRUE(os::vm_release(memory));
    }
}

} // namespace

// Stand between the library and the system: each lets the call fail that is to come after so many others.
static int mmap_fails_in = 0, munmap_fails_in = 0, read_fails_in = 0, failure = ENOMEM;
// MiB that the machine has available from then on; -1: what is true.
static int tells_in = 0, available = -1;
static bool fails(int& in) {
    errno = in == 1 ? failure : errno;
    return in > 0 && --in == 0;
}
extern "C" {
void* __real_mmap(void* where, std::size_t size, int protection, int flags, int file, off_t offset);
int __real_munmap(void* where, std::size_t size);
ssize_t __real_read(int file, void* data, std::size_t size);

void* __wrap_mmap(void* where, std::size_t size, int protection, int flags, int file,
                  off_t offset) {
    return fails(mmap_fails_in) ? MAP_FAILED
                                : __real_mmap(where, size, protection, flags, file, offset);
}
int __wrap_munmap(void* where, std::size_t size) {
    return fails(munmap_fails_in) ? -1 : __real_munmap(where, size);
}
ssize_t __wrap_read(int file, void* data, std::size_t size) {
    const ssize_t got =
        fails(read_fails_in) ? -1 : __real_read(file, data, std::min<std::size_t>(size, 700));
    constexpr char memory[] = "MemTotal:";
    if (available < 0 || got < 700 || std::memcmp(data, memory, sizeof memory - 1) != 0 ||
        tells_in-- > 0) {
        return got;
    }
    return std::snprintf(static_cast<char*>(data), 700, "MemTotal: 9 kB\nMemAvailable: %d kB\n",
                         available * 1024);
}
} // extern "C"

namespace {

// Nothing changes, nobody's errno does, and the next attempt is as if there had been none before.
TEST(FailingCalls, LeaveMemoryAsItWasAndItsGranules) {
    auto* const first = static_cast<char*>(os::vm_allocate(3 * unit, os::Placement::segment));
    void* const second = os::vm_allocate(unit, os::Placement::segment);
    const os::GranuleMap& map = *os::vm_granules();
    const auto held = [&] {
        return map.holds(first) && map.holds(first + 3 * unit - 1) && map.holds(second);
    };
    failure = ENOMEM;
    errno = 7;
    mmap_fails_in = 1;
    EXPECT_EQ(os::vm_allocate(unit, os::Placement::segment), nullptr);
    munmap_fails_in = 1;
    EXPECT_FALSE(os::vm_release(first));
    EXPECT_TRUE(held());
    munmap_fails_in = 1;
    EXPECT_EQ(os::vm_release_run(first, 4 * unit), 0U);
    EXPECT_TRUE(held());
    EXPECT_EQ(errno, 7);
    os::Region region{};
    ASSERT_TRUE(os::vm_query(first + unit, region));
    EXPECT_EQ(region.base + region.size, reinterpret_cast<std::uintptr_t>(first) + 3 * unit);
    first[3 * unit - 1] = 1;
    EXPECT_TRUE(os::vm_release(first));
    EXPECT_TRUE(os::vm_release(second));
    EXPECT_FALSE(map.holds(first) || map.holds(second));
    if (second == first + 3 * unit) {
        void* const again = os::vm_allocate(unit, os::Placement::segment);
        EXPECT_EQ(again, second) << "what grows behind it joins it again";
        os::vm_release(again);
    }
}

// A lock that threads meet in needs an event, whether or not there is memory.
TEST(FailingCalls, KeepNoEventFromALock) {
    failure = ENOMEM;
    std::vector<os::Event> events(70);
    for (os::Event& event : events) {
        mmap_fails_in = &event == &events[0] ? 1 : 0;
        event = os::event_create();
        ASSERT_TRUE(event != nullptr && os::event_set(event));
    }
    mmap_fails_in = 0;
    for (const os::Event event : events) {
        EXPECT_TRUE(os::event_wait(event)); // its own permission, and not another's
        os::event_close(event);
    }
    const os::Event again = os::event_create(); // with no permission of before
    std::thread other([&] { os::event_set(again); });
    EXPECT_TRUE(os::event_wait(again));
    other.join();
    os::event_close(again);
}

// Both versions, with the group, the one around it and what the machine has; caches can be given up.
TEST(MemoryLeft, IsThatOfTheTightestControlGroup) {
    namespace fs = std::filesystem;
    const fs::path root = fs::path(testing::TempDir()) / ("groups" + std::to_string(getpid()));
    const auto write = [&](const std::string& file, const std::string& text) {
        fs::create_directories((root / file).parent_path());
        std::ofstream(root / file) << text;
    };
    const auto left = [&](const std::string& list) {
        write("list", list);
        return os::memory_left((root / "list").c_str(), root.c_str());
    };
    write("a/b/memory.max", "max\n");
    write("a/b/memory.current", "400000\n");
    write("a/memory.max", "1000000\n");
    write("a/memory.current", "700000\n");
    write("a/memory.stat",
          "anon 9\nfile 150000\ninactive_anon 5\ninactive_file 100000\nactive_file 50000\n");
    write("memory/job/memory.limit_in_bytes", "2000000\n");
    write("memory/job/memory.usage_in_bytes", "2100000\n");
    write("memory/memory.limit_in_bytes", "9223372036854771712\n");
    write("memory/memory.usage_in_bytes", "5000000\n");
    EXPECT_EQ(left("3:cpu:/\n0::/a/b\n"), 450000U);
    EXPECT_EQ(left("4:hugetlb,memory:/job\n0::/\n"), 0U);
    write("memory/job/memory.stat", "cache 3\ntotal_inactive_file 300000\n");
    EXPECT_EQ(left("4:memory:/job/not/here\n"), 200000U);
    const std::uint64_t machine = left("no list");
    EXPECT_GT(machine, 10000000U);
    EXPECT_LT(machine, std::uint64_t{1} << 50);
    fs::remove_all(root);
}

// What could not be read is not known: neither is address space told free nor are there figures of a part.
// An interrupted read is done again.
TEST(FailingCalls, MakeNoAnswersOfPartsOfFiles) {
    for (const int error : {EIO, EINTR}) {
        failure = error;
        for (int at = 1; at <= 2; ++at) {
            os::Region region{};
            read_fails_in = at;
            EXPECT_EQ(os::vm_query(&region, region), error == EINTR);
            EXPECT_NE(region.state, os::state_free);
            os::ProcessMemory process{};
            os::MachineMemory machine;
            read_fails_in = at;
            EXPECT_EQ(os::process_memory(process), error == EINTR);
            read_fails_in = at;
            EXPECT_EQ(os::machine_memory(machine), error == EINTR);
        }
    }
}

// As by kill(): no fault of the guarded code, which goes on; whoever stood there before gets the signal.
bool is_place(const os::CodeSymbol& symbol) {
    return std::strncmp(symbol.name, "+0x", 3) == 0 && symbol.file == nullptr;
}

// Debug information is left unread, or left where it stands, before the kernel would kill for it. In a process of its
// own, as what was read stays.
TEST(MemoryLeft, BoundsWhatCallStacksRead) {
    for (const bool on_the_way : {false, true}) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const auto here = reinterpret_cast<std::uintptr_t>(&there_and_back) + 1;
            os::CodeSymbol symbol;
            tells_in = on_the_way ? 1 : 0;
            available = on_the_way ? 4 : 1;
            os::symbol_at(here, symbol);
            bool good = is_place(symbol) && tells_in < 0;
            available = -1; // but a refusal stands for a while
            os::symbol_at(here + 1, symbol);
            good = good && os::symbols_start() && (on_the_way || is_place(symbol));
            usleep(150000);
            os::symbol_at(here, symbol);
            good = good && (on_the_way || (symbol.file != nullptr && symbol.name[0] != '+'));
            _exit(good ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << on_the_way;
    }
}

TEST(SentSignals, AreNotTheGuardsOwn) {
    static volatile int handled = 0;
    const auto send = [](int signal) {
        return os::guarded_call([](void* number) { std::raise(*static_cast<int*>(number)); },
                                &signal);
    };
    auto* const before = std::signal(SIGILL, [](int) { handled = handled + 1; });
    EXPECT_TRUE(send(SIGILL));
    EXPECT_EQ(handled, 1);
    std::signal(SIGILL, SIG_IGN);
    EXPECT_TRUE(send(SIGILL));
    std::signal(SIGILL, SIG_DFL);
    EXPECT_EXIT(send(SIGILL), testing::KilledBySignal(SIGILL), "");
    std::signal(SIGILL, before);
}

// A handler that the guarded code puts up stays; a fault that nobody guards ends the process although it was to be
// ignored, as it does without a guard elsewhere.
TEST(GuardedCall, LeavesWhatItsWorkAndOtherThreadsSetUp) {
    struct sigaction theirs = {}, before, found;
    theirs.sa_flags = SA_SIGINFO;
    theirs.sa_sigaction = [](int, siginfo_t*, void*) {};
    sigaction(SIGILL, nullptr, &before);
    EXPECT_TRUE(os::guarded_call(
        [](void* action) { sigaction(SIGILL, static_cast<struct sigaction*>(action), nullptr); },
        &theirs));
    sigaction(SIGILL, &before, &found);
    EXPECT_EQ(found.sa_sigaction, theirs.sa_sigaction);
    const auto fault_beside_a_guard = [] {
        static std::atomic<bool> inside{false};
        std::signal(SIGILL, SIG_IGN);
        std::thread([] {
            os::guarded_call(
                [](void*) {
                    inside = true;
                    pause();
                },
                nullptr);
        }).detach();
        while (!inside) {
            std::this_thread::yield();
        }
        __asm__ volatile("ud2");
    };
    EXPECT_EXIT(fault_beside_a_guard(), testing::KilledBySignal(SIGILL), "");
}

} // namespace
