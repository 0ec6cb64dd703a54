// Everything at once that a program may do to an allocator: requests of many threads, whose ends release what
// others took; children forked meanwhile, which go on allocating with threads of their own; signal handlers that
// allocate where the main thread is in the midst of that; exceptions on refusal; allocations before main, and
// after it at exit. Prints one line when all of it went well.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <new>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "storm: %s\n", what);
    std::_Exit(1);
}

// Before main, and released after it.
struct Early {
    std::string text = std::string(1000, 'e');
    ~Early() {
        if (text != std::string(1000, 'e')) {
            fail("the early text is lost");
        }
        std::vector<std::unique_ptr<int>> late;
        for (int i = 0; i < 1000; ++i) {
            late.push_back(std::make_unique<int>(i));
        }
    }
} early;

void at_exit() {
    std::free(std::malloc(100000));
}

// Blocks pass from thread to thread through here.
std::atomic<char*> shelf[64];
std::atomic<bool> stop{false};

void churn(unsigned seed) {
    thread_local std::vector<std::string> own; // released at the thread's end
    for (int i = 0; !stop.load(std::memory_order_relaxed); ++i) {
        seed = seed * 1664525 + 1013904223;
        const std::size_t size = 32 + seed / 65536 % 3000;
        char* const block = static_cast<char*>(std::malloc(size));
        if (block == nullptr) {
            fail("no memory");
        }
        const int length = std::snprintf(block, size, "%zu", size);
        std::memset(block + length + 1, 7, size - static_cast<std::size_t>(length) - 1);
        char* const other = shelf[seed / 97 % 64].exchange(block);
        if (other != nullptr) {
            const std::size_t had = std::strtoul(other, nullptr, 10);
            if (had < 32 || other[had - 1] != 7) {
                fail("another thread's block is damaged");
            }
            std::free(other);
        }
        if (i % 100 == 0) {
            own.emplace_back(size, 'x');
        }
    }
}

void on_alarm(int) {
    static char* kept = nullptr;
    std::free(kept);
    kept = static_cast<char*>(std::malloc(200));
    std::free(std::realloc(std::malloc(3000), 9000));
}

void work_in_child() {
    std::vector<std::string> texts;
    std::thread other([] {
        for (int i = 0; i < 200; ++i) {
            std::free(std::calloc(10, static_cast<std::size_t>(i) + 1));
        }
    });
    for (int i = 0; i < 300; ++i) {
        texts.emplace_back(static_cast<std::size_t>(i) * 20, 'c');
    }
    other.join();
    for (auto& place : shelf) { // the parent's threads' blocks, as they were
        std::free(place.exchange(nullptr));
    }
}

void forks() {
    // The C runtime, too, holds its locks around a fork, and a handler comes anyway.
    sigset_t alarms, before;
    sigemptyset(&alarms);
    sigaddset(&alarms, SIGALRM);
    for (int i = 0; i < 25; ++i) {
        pthread_sigmask(SIG_BLOCK, &alarms, &before);
        const pid_t child = fork();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        if (child == 0) {
            work_in_child();
            if (i % 3 == 0) {
                _exit(33);
            }
            std::exit(33);
        }
        int status = 0;
        while (waitpid(child, &status, 0) != child) {
        }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 33) {
            fail("a child ended in another way");
        }
    }
}

void refusals() {
    int handled = 0;
    static int* count = nullptr;
    count = &handled;
    std::set_new_handler([] {
        if (++*count == 3) {
            std::set_new_handler(nullptr);
        }
    });
    volatile std::size_t much = std::size_t{1} << 62;
    bool thrown = false;
    try {
        delete[] new char[much];
    } catch (const std::bad_alloc&) {
        thrown = true;
    }
    if (!thrown || handled != 3 || new (std::nothrow) char[much] != nullptr) {
        fail("refusals do not reach operator new");
    }
    struct alignas(256) Wide {
        char bytes[256];
    };
    const std::unique_ptr<Wide[]> wide(new Wide[3]);
    if (reinterpret_cast<std::size_t>(wide.get()) % 256 != 0) {
        fail("operator new with an alignment does not keep it");
    }
}

void plugins(const char* path) {
    for (int i = 0; i < 3; ++i) {
        void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
        if (library == nullptr) {
            fail(dlerror());
        }
        const auto copy = reinterpret_cast<char* (*)(const char*)>(dlsym(library, "plugin_copy"));
        const auto release = reinterpret_cast<void (*)(void*)>(dlsym(library, "plugin_release"));
        std::free(copy("from the plugin"));
        release(strdup("from the program"));
        release(std::malloc(100000));
        dlclose(library);
    }
}

} // namespace

int main(int argc, char** argv) {
    std::atexit(at_exit);
    plugins(argc > 1 ? argv[1] : "");
    refusals();
    struct sigaction action {};
    action.sa_handler = on_alarm;
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 500}, {0, 500}};
    if (argc > 2) { // where the C runtime serves, such a handler may deadlock

        setitimer(ITIMER_REAL, &often, nullptr);
    }
    std::vector<std::thread> threads;
    sigset_t alarms;
    sigemptyset(&alarms);
    sigaddset(&alarms, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarms, nullptr);
    for (unsigned seed = 1; seed <= 3; ++seed) {
        threads.emplace_back(churn, seed);
    }
    pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
    std::vector<std::string> texts;
    for (int i = 0; i < 20000; ++i) {
        texts.emplace_back(static_cast<std::size_t>(i) % 500, 't');
    }
    forks();
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    std::puts("the storm is over");
    return 0;
}
