// Preloaded into a program, lets one call that the library makes, of the system or of the C runtime's heap, fail: the
// n-th of its kind. The calls of others, the C runtime's and the program's own, pass.
//
//   KXM_INJECT=CALL:FAILURE:N    CALL is mmap, munmap, madvise, open, create (an opening that makes a file), read (pread,
//                                too), write, lseek, close, futex or malloc (and its kin); FAILURE is refuse (with what
//                                the system gives when it is short of something, or cannot get at the disk), interrupt,
//                                or, of read and write, short: half of it; a + behind N: and every later one
//   KXM_INJECT_COUNT=FILE        is made with the number of calls of that kind, when the program exits by itself
//   KXM_INJECT_MAPS=N            takes all the mappings that the system grants a process but about N, and the room for
//                                those that are there to grow
//   KXM_INJECT_STORM=TIMER       signals that interrupt what they find, thousands a second: TIMER is timer, for the
//                                process, or threads, for each of its threads in turn
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <atomic>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "inject.h"

namespace {

struct Plan {
    char call[16] = "";
    char failure[16] = "";
    long at = 0;
    bool later_too = false;
};
Plan plan;
std::atomic<long> calls{0};
struct Code {
    std::uintptr_t from = 0, to = 0;
    bool holds(std::uintptr_t place) const { return place >= from && place < to; }
};
Code library, program;

template <class Function> Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int find_code(dl_phdr_info* info, std::size_t, void*) {
    Code* code = nullptr;
    if (std::strstr(info->dlpi_name, "libKXMBasMem.so") != nullptr) {
        code = &library;
    } else if (program.to == 0) { // the first of all
        code = &program;
    }
    if (code != nullptr) {
        for (int i = 0; i < info->dlpi_phnum; ++i) {
            const ElfW(Phdr)& part = info->dlpi_phdr[i];
            if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0) {
                code->from = info->dlpi_addr + part.p_vaddr;
                code->to = code->from + part.p_memsz;
            }
        }
    }
    return 0;
}

// The library's first call may come before this one's constructors.
void read_plan() {
    if (plan.at != 0 || environ == nullptr) {
        return;
    }
    plan.at = -1;
    dl_iterate_phdr(find_code, nullptr);
    if (const char* const text = std::getenv("KXM_INJECT")) {
        char later = 0;
        std::sscanf(text, "%15[^:]:%15[^:]:%ld%c", plan.call, plan.failure, &plan.at, &later);
        plan.later_too = later == '+';
    }
}

bool of_library(const void* caller, const char* call) {
    read_plan();
    const auto from = reinterpret_cast<std::uintptr_t>(caller);
    // The library hands a request on by a jump, so that it comes from the program, which makes none of its own.
    return library.holds(from) || (program.holds(from) && std::strcmp(call, "malloc") == 0);
}

// True when this call is to fail.
bool fails(const char* call, const void* caller) {
    if (!of_library(caller, call) || std::strcmp(call, plan.call) != 0) {
        return false;
    }
    const long number = ++calls;
    return number == plan.at || (plan.later_too && number > plan.at);
}

bool is(const char* failure) {
    return std::strcmp(plan.failure, failure) == 0;
}

template <class Result> Result failed(int refusal, Result result) {
    errno = is("interrupt") ? EINTR : refusal;
    return result;
}

// What the library holds, for inject.h. It places the heap's memory itself, and leaves the place of its own tables to
// the kernel. The heap asks for whole units; smaller is what a call stack is captured in.
constexpr std::size_t unit = 65536;
std::atomic<std::size_t> mapped{0};
std::atomic<std::uintptr_t> lowest{UINTPTR_MAX}, end{0};

class Spin {
public:
    Spin() {
        while (taken.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~Spin() { taken.clear(std::memory_order_release); }
    Spin(const Spin&) = delete;
    Spin& operator=(const Spin&) = delete;

private:
    static std::atomic_flag taken;
};
std::atomic_flag Spin::taken;

InjectedAccount::Kept kept[4096];
std::size_t kept_count = 0;

void note_kept(const void* base, std::size_t size) {
    const Spin spin;
    for (std::size_t i = 0; i < kept_count; ++i) {
        if (kept[i].base == base) { // tried again
            kept[i].size = size;
            return;
        }
    }
    if (kept_count < sizeof kept / sizeof *kept) {
        kept[kept_count++] = {base, size};
    }
}

void note_unmapping(const void* base, std::size_t size) {
    const Spin spin;
    mapped -= size;
    for (std::size_t i = 0; i < kept_count; ++i) {
        const auto* const from = static_cast<const char*>(kept[i].base);
        if (from < static_cast<const char*>(base) + size && base < from + kept[i].size) {
            kept[i].base = nullptr;
        }
    }
}

bool is_heaps(const void* where, std::size_t size) {
    const auto place = reinterpret_cast<std::uintptr_t>(where);
    return place >= lowest && place < end && size % unit == 0;
}

void note_mapping(const void* where, std::size_t size) {
    const auto from = reinterpret_cast<std::uintptr_t>(where);
    std::uintptr_t known = lowest;
    while (from < known && !lowest.compare_exchange_weak(known, from)) {
    }
    known = end;
    while (from + size > known && !end.compare_exchange_weak(known, from + size)) {
    }
    mapped += size;
}

// The addresses of blocks, by open addressing: what removes a block may be the program's own, by a jump as well.
class Blocks {
public:
    void add(const void* block) {
        const Spin spin;
        ++count_;
        *find(block) = block;
    }
    void remove(const void* block) {
        const Spin spin;
        const void** hole = find(block);
        count_ -= *hole != nullptr ? 1 : 0;
        for (const void** at = hole;
             *hole != nullptr;) { // fetches up who was passed on for the hole
            at = next_to(at);
            if (*at == nullptr) {
                *hole = nullptr;
            } else if (distance(home(*at), at) >= distance(hole, at)) {
                *hole = *at;
                hole = at;
            }
        }
    }
    long count() const { return count_; }

private:
    static constexpr std::size_t room = std::size_t{1} << 18; // many times what the programs hold
    const void** home(const void* block) {
        return &table_[reinterpret_cast<std::uintptr_t>(block) / 16 * 0x9E3779B97F4A7C15 >> 46];
    }
    const void** next_to(const void** at) { return at + 1 == table_ + room ? table_ : at + 1; }
    static std::size_t distance(const void** from, const void** to) {
        return static_cast<std::size_t>(to - from) % room;
    }
    const void** find(const void* block) {
        const void** at = home(block);
        while (*at != nullptr && *at != block) {
            at = next_to(at);
        }
        return at;
    }

    const void* table_[room];
    std::atomic<long> count_;
};
Blocks blocks;

void* note_block(void* made, const void* caller) {
    if (made != nullptr && of_library(caller, "malloc")) {
        blocks.add(made);
    }
    return made;
}

// Neighbours of different protection are mappings of their own.
__attribute__((constructor)) void take_mappings() {
    const char* const left = std::getenv("KXM_INJECT_MAPS");
    std::FILE* const file =
        left != nullptr ? std::fopen("/proc/sys/vm/max_map_count", "r") : nullptr;
    if (file == nullptr) {
        return;
    }
    long most = 0;
    if (std::fscanf(file, "%ld", &most) == 1) {
        constexpr long present = 60; // of a program that has just been loaded
        const long pages = most - present - std::atol(left);
        auto* const at =
            static_cast<char*>(mmap(nullptr, static_cast<std::size_t>(pages) * 4096, PROT_READ,
                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        for (long page = 0; page < pages; page += 2) {
            mprotect(at + page * 4096, 4096, PROT_NONE);
        }
        // The C runtime's heap does not grow on in one that it has.
        mmap(sbrk(0), 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    }
    std::fclose(file);
}

void* storm_on_threads(void*) {
    const auto self = static_cast<pid_t>(::syscall(SYS_gettid));
    for (;;) {
        DIR* const tasks = opendir("/proc/self/task");
        while (const dirent* const task = tasks != nullptr ? readdir(tasks) : nullptr) {
            const auto thread = static_cast<pid_t>(std::atoi(task->d_name));
            if (thread > 0 && thread != self) {
                ::syscall(SYS_tgkill, getpid(), thread, SIGURG);
            }
        }
        if (tasks != nullptr) {
            closedir(tasks);
        }
        usleep(50);
    }
}

// The handler does nothing; without SA_RESTART calls come back interrupted. By default the signal is ignored, for
// a program that starts another.
__attribute__((constructor)) void begin_storm() {
    const char* const kind = std::getenv("KXM_INJECT_STORM");
    if (kind == nullptr) {
        return;
    }
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGURG, &action, nullptr);
    if (std::strcmp(kind, "timer") == 0) {
        sigevent what{};
        what.sigev_notify = SIGEV_SIGNAL;
        what.sigev_signo = SIGURG;
        timer_t timer{};
        const itimerspec each{{0, 100000}, {0, 100000}};
        timer_create(CLOCK_MONOTONIC, &what, &timer);
        timer_settime(timer, 0, &each, nullptr);
    } else {
        pthread_t storm;
        pthread_create(&storm, nullptr, storm_on_threads, nullptr);
        pthread_detach(storm);
    }
}

// Only a program that exits by itself gets here.
__attribute__((destructor)) void tell() {
    if (const char* const name = std::getenv("KXM_INJECT_COUNT")) {
        if (std::FILE* const file = std::fopen(name, "w")) {
            std::fprintf(file, "%ld\n", calls.load());
            std::fclose(file);
        }
    }
}

} // namespace

#define CALLER __builtin_return_address(0)

extern "C" {

void* mmap(void* where, std::size_t size, int protection, int flags, int file,
           off_t offset) noexcept {
    static const auto real = next<decltype(&mmap)>("mmap");
    if (fails("mmap", CALLER)) {
        return failed(ENOMEM, MAP_FAILED);
    }
    void* const made = real(where, size, protection, flags, file, offset);
    if (made == where && (flags & MAP_FIXED_NOREPLACE) != 0 && size % unit == 0 &&
        of_library(CALLER, "mmap")) {
        note_mapping(where, size);
    }
    return made;
}

int munmap(void* where, std::size_t size) noexcept {
    static const auto real = next<decltype(&munmap)>("munmap");
    const bool counted = of_library(CALLER, "munmap") && is_heaps(where, size);
    if (fails("munmap", CALLER)) {
        if (counted) {
            note_kept(where, size);
        }
        return failed(ENOMEM, -1);
    }
    const int result = real(where, size);
    if (counted) {
        result == 0 ? note_unmapping(where, size) : note_kept(where, size);
    }
    return result;
}

int madvise(void* where, std::size_t size, int advice) noexcept {
    static const auto real = next<decltype(&madvise)>("madvise");
    return fails("madvise", CALLER) ? failed(EINVAL, -1) : real(where, size, advice);
}

int open(const char* name, int flags, ...) {
    static const auto real = next<decltype(&open)>("open");
    std::va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    const bool made = (flags & O_CREAT) != 0 && fails("create", CALLER);
    return made || fails("open", CALLER) ? failed(ENOSPC, -1) : real(name, flags, mode);
}

ssize_t write(int file, const void* data, std::size_t size) {
    static const auto real = next<decltype(&write)>("write");
    if (!fails("write", CALLER)) {
        return real(file, data, size);
    }
    return is("short") && size > 1 ? real(file, data, size / 2) : failed(ENOSPC, ssize_t{-1});
}

ssize_t read(int file, void* data, std::size_t size) {
    static const auto real = next<decltype(&read)>("read");
    if (!fails("read", CALLER)) {
        return real(file, data, size);
    }
    return is("short") && size > 1 ? real(file, data, size / 2) : failed(EIO, ssize_t{-1});
}

ssize_t pread(int file, void* data, std::size_t size, off_t offset) {
    static const auto real = next<decltype(&pread)>("pread");
    if (!fails("read", CALLER)) {
        return real(file, data, size, offset);
    }
    return is("short") && size > 1 ? real(file, data, size / 2, offset) : failed(EIO, ssize_t{-1});
}

off_t lseek(int file, off_t offset, int from) noexcept {
    static const auto real = next<decltype(&lseek)>("lseek");
    return fails("lseek", CALLER) ? failed(EIO, off_t{-1}) : real(file, offset, from);
}

// The file is closed whatever the system says.
int close(int file) {
    static const auto real = next<decltype(&close)>("close");
    const int result = real(file);
    return fails("close", CALLER) ? failed(EIO, -1) : result;
}

long syscall(long number, ...) noexcept {
    static const auto real = next<decltype(&syscall)>("syscall");
    std::va_list more;
    va_start(more, number);
    long arguments[6];
    for (long& argument : arguments) {
        argument = va_arg(more, long);
    }
    va_end(more);
    if (number == SYS_futex && fails("futex", CALLER)) {
        return failed(EAGAIN, -1L);
    }
    return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                arguments[5]);
}

// The C runtime's own names, for requests come before anything could be looked up.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void __libc_free(void* block);

void* malloc(std::size_t size) noexcept {
    return fails("malloc", CALLER) ? failed<void*>(ENOMEM, nullptr)
                                   : note_block(__libc_malloc(size), CALLER);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    return fails("malloc", CALLER) ? failed<void*>(ENOMEM, nullptr)
                                   : note_block(__libc_calloc(count, size), CALLER);
}

void* realloc(void* block, std::size_t size) noexcept {
    if (fails("malloc", CALLER)) {
        return failed<void*>(ENOMEM, nullptr);
    }
    // Off the list while it moves, for its place may be had by another thread at once.
    blocks.remove(block);
    void* const made = __libc_realloc(block, size);
    return note_block(made != nullptr || size == 0 ? made : block, CALLER), made;
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
    void* const made =
        fails("malloc", CALLER) ? nullptr : note_block(__libc_memalign(alignment, size), CALLER);
    if (made == nullptr) {
        return ENOMEM;
    }
    *block = made;
    return 0;
}

void free(void* block) noexcept {
    if (block != nullptr) {
        blocks.remove(block);
        __libc_free(block);
    }
}

void kxm_injected_account(InjectedAccount* account) {
    *account = {mapped, kept, kept_count, blocks.count(), true}; // who starts it counts them
}

} // extern "C"
