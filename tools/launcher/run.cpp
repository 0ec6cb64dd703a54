// See run.h. The program is a child, and the launcher waits, because the last words must come whatever ends
// it: a signal leaves nobody in it to say them. The child is a plain one all the same: same process group,
// session, terminal, descriptors and signal mask, so keys pressed at the terminal and signals to the group reach
// it by themselves. What is sent to the launcher alone is passed on; if the child is stopped the launcher
// stops too, so that a shell sees it; and if the launcher is killed the child is.
#include "run.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace kxmrun {
namespace {

std::string library_path() {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string folder(self, length > 0 ? static_cast<std::size_t>(length) : 0);
    folder.erase(folder.rfind('/') + 1);
    const std::string path = folder + KXMRUN_LIBRARIES + "/libkxmrun.so";
    char* const clean = realpath(path.c_str(), nullptr);
    if (clean == nullptr) {
        return {};
    }
    std::string result = clean;
    std::free(clean);
    return result;
}

void add_to_list(const char* variable, const std::string& text) {
    const char* const old = std::getenv(variable);
    setenv(variable, (old != nullptr && *old != '\0' ? text + ":" + old : text).c_str(), 1);
}

std::string settings_text(const Options& options) {
    std::string text = "from=kxmrun";
    const auto add = [&text](const char* name, const std::optional<std::uint64_t>& value) {
        if (value) {
            text += std::string(",") + name + "=" + std::to_string(*value);
        }
    };
    add("limit", options.limit);
    // Unasked, what the C runtime's own thresholds grow to, so that a program which takes and gives back
    // its work arrays does not pay the system for it each time.
    add("trim", options.trim_threshold.value_or(std::uint64_t{64} << 20));
    add("mmap", options.mmap_threshold.value_or(std::uint64_t{32} << 20));
    add("granularity", options.granularity.value_or(std::uint64_t{256} << 10));
    if (options.tiny) {
        text += ",tiny=1";
    }
    return text;
}

// What the other back ends stand on, the C runtime, has options of the same meaning.
void set_runtime_options(const Options& options) {
    const auto add = [](const std::string& name, std::uint64_t value) {
        add_to_list("GLIBC_TUNABLES", "glibc.malloc." + name + "=" + std::to_string(value));
    };
    if (options.trim_threshold) {
        add("trim_threshold", *options.trim_threshold);
    }
    if (options.mmap_threshold) {
        add("mmap_threshold", *options.mmap_threshold);
    }
    if (options.huge_pages && *options.huge_pages) {
        add("hugetlb", 1);
    }
}

// The back end and the recording are the options' alone, whatever the environment says.
void set_environment(const Options& options, const std::string& library,
                     const std::string& figures_path, const std::string& record) {
    for (const char* const name :
         {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_CRTMALLOC", "KXQ_USE_ALIGNED_MEMORY",
          "KXA_MEM_TRACK", "KXA_MEM_OUTPUTDIR"}) {
        unsetenv(name);
    }
    if (options.backend == "heap") {
        setenv("KXQ_DLALLOCATOR", "1", 1);
    } else {
        set_runtime_options(options);
        if (options.backend != "c") {
            setenv(options.backend == "guarded" ? "KXA_DEADBEEF" : "KXQ_USE_ALIGNED_MEMORY", "1",
                   1);
        }
    }
    if (options.track) {
        setenv("KXA_MEM_TRACK", "1", 1);
        setenv(record_variable, record.c_str(), 1);
    }
    setenv(settings_variable, settings_text(options).c_str(), 1);
    if (!figures_path.empty()) {
        setenv(figures_variable, figures_path.c_str(), 1);
    }
    add_to_list("LD_PRELOAD", library);
}

struct Signals {
    sigset_t all{}, before{};
    struct sigaction child_before {};

    // A child may be gone before one waits for it where SIGCHLD is ignored, so it is not, here.
    Signals() {
        sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
            sigdelset(&all, fault);
        }
        sigprocmask(SIG_BLOCK, &all, &before);
        struct sigaction standard {};
        standard.sa_handler = SIG_DFL;
        sigaction(SIGCHLD, &standard, &child_before);
    }
    void as_before() const {
        sigaction(SIGCHLD, &child_before, nullptr);
        sigprocmask(SIG_SETMASK, &before, nullptr);
    }
};

[[noreturn]] void become(const Options& options, const std::string& program, int report,
                         pid_t parent, const Signals& signals) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(usage_status);
    }
    if (options.huge_pages && !*options.huge_pages) {
        prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
    }
    std::vector<char*> arguments;
    for (const std::string& argument : options.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    signals.as_before();
    execvp(program.c_str(), arguments.data()); // by its path, which has been found
    const int error = errno;
    static_cast<void>(write(report, &error, sizeof error));
    _exit(usage_status);
}

// One that is pending for the launcher, or 0. The set may be of several.
int pending(const sigset_t& set, siginfo_t& what) {
    const timespec at_once{};
    const int signal = sigtimedwait(&set, &what, &at_once);
    return signal > 0 ? signal : 0;
}

void pass_on(pid_t child, int signal, const siginfo_t& what) {
    // What the kernel itself sends has gone to the whole group.
    if (signal != SIGCHLD && what.si_code <= 0 && what.si_pid != child) {
        kill(child, signal);
    }
}

// The child has stopped: so does the launcher, unless it has been told meanwhile to go on. What comes for it
// while it is stopped reaches the child first, as it would a stopped program.
void stop_with(pid_t child, const Signals& signals) {
    sigset_t going_on;
    sigemptyset(&going_on);
    sigaddset(&going_on, SIGCONT);
    siginfo_t what{};
    if (pending(going_on, what) == 0) {
        kill(getpid(), SIGSTOP);
        sigset_t others = signals.all;
        sigdelset(&others, SIGCHLD);
        while (const int signal = pending(others, what)) {
            pass_on(child, signal, what);
        }
    }
    kill(child, SIGCONT);
}

// Until the child has ended; its figures are in `usage`.
int wait_for(pid_t child, const Signals& signals, struct rusage& usage) {
    for (;;) {
        siginfo_t what{};
        const int signal = sigwaitinfo(&signals.all, &what);
        if (signal < 0) {
            continue;
        }
        if (signal == SIGCHLD) {
            int status = 0;
            while (wait4(child, &status, WNOHANG | WUNTRACED, &usage) == child) {
                if (!WIFSTOPPED(status)) {
                    return status;
                }
                stop_with(child, signals);
            }
        } else {
            pass_on(child, signal, what);
        }
    }
}

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
}

double now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

} // namespace

Figures* make_figures(std::string& path) {
    const int file = memfd_create("kxmrun", MFD_CLOEXEC);
    if (file < 0 || ftruncate(file, sizeof(Figures)) != 0) {
        return nullptr;
    }
    void* const memory =
        mmap(nullptr, sizeof(Figures), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    auto* const figures = static_cast<Figures*>(memory);
    figures->magic = Figures::mark;
    path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file);
    return figures;
}

Outcome run(const Options& options, const std::string& program, const std::string& figures_path,
            const std::string& record) {
    Outcome outcome;
    const std::string library = library_path();
    if (library.empty() || library.find_first_of(": $") != std::string::npos) {
        outcome.error = library.empty()
                            ? "its library libkxmrun.so is missing from " KXMRUN_LIBRARIES
                            : "the loader takes no library from a path with blanks, colons or "
                              "dollar signs: " +
                                  library;
        return outcome;
    }
    set_environment(options, library, figures_path, record);
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        outcome.error = std::strerror(errno);
        return outcome;
    }
    const Signals signals;
    const pid_t launcher = getpid();
    const double start = now();
    const pid_t child = fork();
    if (child == 0) {
        become(options, program, report[1], launcher, signals);
    }
    close(report[1]);
    int error = child < 0 ? errno : 0;
    if (child > 0) {
        while (read(report[0], &error, sizeof error) < 0 && errno == EINTR) {
        }
        struct rusage usage {};
        const int status = wait_for(child, signals, usage);
        outcome.seconds = now() - start;
        outcome.user = seconds(usage.ru_utime);
        outcome.system = seconds(usage.ru_stime);
        outcome.resident = static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
        outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        outcome.status = outcome.signal != 0 ? 128 + outcome.signal : WEXITSTATUS(status);
    }
    if (error != 0) {
        outcome.error = program + ": " + std::strerror(error);
    }
    return outcome;
}

} // namespace kxmrun
