// The life of a process under the launcher: the start, which is a constructor of this library and so comes
// after those of the libraries that it needs; fork; and the ways in which a process ends or becomes another.
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "frame/host.h"
#include "guarded.h"
#include "heap/dlmalloc.h"
#include "mem_BoundFunctions.h"
#include "mem_Interface.h"
#include "mem_Tracker.h"
#include "process.h"

extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* object);

namespace kxmrun {
namespace {

// ---- The real functions

struct Real {
    int (*execve)(const char*, char* const[], char* const[]);
    int (*execvpe)(const char*, char* const[], char* const[]);
    int (*fexecve)(int, char* const[], char* const[]);
    int (*execveat)(int, const char*, char* const[], char* const[], int);
} real{};

template <typename Function> void find(Function& function, const char* name) {
    function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int runtime_posix_memalign(void** result, std::size_t alignment, std::size_t size) {
    const int saved_errno = errno;
    void* const block = __libc_memalign(alignment, size);
    errno = saved_errno;
    *result = block;
    return block != nullptr ? 0 : ENOMEM;
}

// ---- Start

std::size_t size_setting(const char* name, std::size_t standard) {
    const char* const text = setting(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : standard;
}

void set_option(const char* name, int option) {
    if (setting(name) != nullptr) {
        dlmallopt(option, size_setting(name, 0));
    }
}

void start_heap() {
    const std::size_t recorder =
        dlmalloc_footprint(); // its memory is the heap's, and not the program's
    process.figures->own = recorder;
    set_option("trim", -1);
    set_option("granularity", -2);
    set_option("mmap", -3);
    process.granules = host::heap_granules();
    process.tiny = setting("tiny") != nullptr;
    if (process.tiny) {
        host::start_tiny();
    }
    if (const std::size_t limit = size_setting("limit", 0)) {
        dlmallopt(-5, limit + recorder);
    }
}

Backend bound_backend() {
    if (mem_usingDL() != 0) {
        return Backend::heap;
    }
    if (std::getenv("KXA_DEADBEEF") != nullptr) {
        return Backend::guarded;
    }
    return std::getenv("KXQ_USE_ALIGNED_MEMORY") != nullptr ? Backend::aligned : Backend::runtime;
}

// ---- Fork. These handlers stand outside the library's, which were there first: from before its locks are
// taken until they are free again this thread is inside.
//
// A signal handler's fork may have come while its thread was inside, with locks in its hands, and what it
// interrupted may go on in the child: that is left as it was, and not recorded.

bool forks_inside() {
    return own.forks_inside;
}

void before_fork() {
    own.forks_inside = own.inside;
    own.inside = true;
}

void after_fork_in_parent() {
    own.inside = own.forks_inside;
    own.forks_inside = false;
}

void after_fork_in_child() {
    take_figures();
    if (own.forks_inside) {
        process.tracking = false;
    } else {
        process.tracking = process.tracking && mem_Tracker::CheckUseFlag() == mem_Tracker::e_useOn;
        if (process.tracking) {
            known.only_recorded = true;
            known.recorded.clear();
            begin_recording();
        }
        known.unrecorded.clear();
    }
    own.inside = own.forks_inside;
    own.forks_inside = false;
}

// ---- End

// After the last destructor: with no object's name, it outlives even those of this library's.
void at_the_end(void*) {
    own.inside = true; // for good
    save_recording(true);
    note_end(Event{});
}

// A child of vfork runs in its parent's memory: nothing of it is the child's to save.
void before_replacement() {
    const bool was_inside = own.inside;
    own.inside = true;
    const int saved_errno = errno;
    save_recording(!was_inside);
    note_end(replaced);
    errno = saved_errno;
    own.inside = was_inside;
}

// A program at a fixed address that takes malloc's address gives it one in itself, of an entry that jumps to
// ours; the symbol there is not a definition.
bool another_malloc_serves() {
    void* const found = dlsym(RTLD_DEFAULT, "malloc");
    if (found == reinterpret_cast<void*>(static_cast<void* (*)(std::size_t)>(malloc))) {
        return false;
    }
    Dl_info where{};
    void* symbol = nullptr;
    return dladdr1(found, &where, &symbol, RTLD_DL_SYMENT) == 0 || symbol == nullptr ||
           static_cast<const ElfW(Sym)*>(symbol)->st_shndx != SHN_UNDEF;
}

__attribute__((constructor)) void start() {
    own.inside = true;
    find(real.execve, "execve");
    find(real.execvpe, "execvpe");
    find(real.fexecve, "fexecve");
    find(real.execveat, "execveat");
    find(process.runtime.usable_size, "malloc_usable_size");
    find(process.runtime.trim, "malloc_trim");
    find(process.runtime.info, "mallinfo2");
    host::set_runtime({guarded::runtime_malloc, __libc_calloc, __libc_realloc, __libc_free,
                       runtime_posix_memalign});
    open_figures();
    take_figures();
    const Backend backend = bound_backend();
    if (backend == Backend::heap) {
        start_heap();
        host::watch_peak(&process.figures->peak);
    }
    process.tracking = mem_Tracker::CheckUseFlag() == mem_Tracker::e_useOn;
    if (process.tracking) {
        begin_recording();
    }
    if (!process.tracking || backend == Backend::heap) {
        known.unrecorded.clear();
    }
    if (another_malloc_serves()) {
        process.figures->events.fetch_or(other_malloc);
    }
    watch_signals();
    host::set_fork_question(forks_inside);
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    __cxa_atexit(at_the_end, nullptr, nullptr);
    // cppcheck-suppress ignoredReturnValue ; refused, it costs the end of a record at quick_exit alone
    at_quick_exit([] { at_the_end(nullptr); });
    process.backend = backend;
    process.plain_heap = backend == Backend::heap && !process.tiny && !process.tracking;
    own.inside = false;
}

[[noreturn]] void end_now(int status) {
    if (getpid() == process.pid) { // the child of a vfork would leave its parent inside
        const bool interrupted = own.inside;
        own.inside = true;
        save_recording(!interrupted); // a handler's own thread may be in the tracker
        note_end(Event{});
    }
    for (;;) {
        syscall(SYS_exit_group, status);
    }
}

// The arguments of a call that lists them, as an array in the caller's frame.
std::size_t count_arguments(std::va_list arguments) {
    std::size_t count = 1;
    while (va_arg(arguments, char*) != nullptr) {
        ++count;
    }
    return count;
}

} // namespace
} // namespace kxmrun

using namespace kxmrun;

KXMRUN_ENTRY void _exit(int status) {
    end_now(status);
}

KXMRUN_ENTRY void _Exit(int status) noexcept {
    end_now(status);
}

KXMRUN_ENTRY int execve(const char* path, char* const arguments[],
                        char* const environment[]) noexcept {
    before_replacement();
    return real.execve(path, arguments, environment);
}

KXMRUN_ENTRY int execv(const char* path, char* const arguments[]) noexcept {
    return execve(path, arguments, environ);
}

KXMRUN_ENTRY int execvpe(const char* file, char* const arguments[],
                         char* const environment[]) noexcept {
    before_replacement();
    return real.execvpe(file, arguments, environment);
}

KXMRUN_ENTRY int execvp(const char* file, char* const arguments[]) noexcept {
    return execvpe(file, arguments, environ);
}

KXMRUN_ENTRY int fexecve(int file, char* const arguments[], char* const environment[]) noexcept {
    before_replacement();
    return real.fexecve(file, arguments, environment);
}

KXMRUN_ENTRY int execveat(int folder, const char* path, char* const arguments[],
                          char* const environment[], int flags) noexcept {
    before_replacement();
    return real.execveat(folder, path, arguments, environment, flags);
}

// The three that list their arguments. The array lies in the frame, as a child of vfork needs it.
#define KXMRUN_LISTED(first)                                                                       \
    std::va_list list;                                                                             \
    va_start(list, first);                                                                         \
    const std::size_t count = count_arguments(list);                                               \
    va_end(list);                                                                                  \
    char** const arguments = static_cast<char**>(__builtin_alloca((count + 1) * sizeof(char*)));   \
    va_start(list, first);                                                                         \
    arguments[0] = const_cast<char*>(first);                                                       \
    for (std::size_t i = 1; i <= count; ++i) {                                                     \
        arguments[i] = va_arg(list, char*);                                                        \
    }

KXMRUN_ENTRY int execl(const char* path, const char* first, ...) noexcept {
    KXMRUN_LISTED(first)
    va_end(list);
    return execve(path, arguments, environ);
}

KXMRUN_ENTRY int execlp(const char* file, const char* first, ...) noexcept {
    KXMRUN_LISTED(first)
    va_end(list);
    return execvpe(file, arguments, environ);
}

KXMRUN_ENTRY int execle(const char* path, const char* first, ...) noexcept {
    KXMRUN_LISTED(first)
    char* const* const environment = va_arg(list, char* const*);
    va_end(list);
    return execve(path, arguments, environment);
}

// A library that is loaded to prefer its own would give blocks of ours to the C runtime's free: that wish
// (RTLD_DEEPBIND, 8) is taken off. By a jump, since the loader looks at who calls.
namespace {

extern "C" KXMRUN_HIDDEN void* kxmrun_first_dlopen(const char* file, int mode);
extern "C" {
KXMRUN_HIDDEN void* (*kxmrun_real_dlopen)(const char*, int) = kxmrun_first_dlopen;
}

__attribute__((constructor)) void find_dlopen() {
    find(kxmrun_real_dlopen, "dlopen");
}

} // namespace

extern "C" KXMRUN_HIDDEN void* kxmrun_first_dlopen(const char* file, int mode) {
    find_dlopen();
    return kxmrun_real_dlopen(file, mode);
}

__asm__(".text\n"
        ".globl dlopen\n"
        ".type dlopen, @function\n"
        "dlopen:\n"
        "    .cfi_startproc\n"
        "    andl $~8, %esi\n"
        "    jmp *kxmrun_real_dlopen(%rip)\n"
        "    .cfi_endproc\n"
        ".size dlopen, . - dlopen\n");
