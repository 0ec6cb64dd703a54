// What the benchmarks beside other allocators share. Each figure is taken in a process of its own, so
// that no allocator meets another's leavings; the processes of a row take turns, and a row tells each
// one's median and, beside it, the ratio to the first.
//
//   program [ROW-SUBSTRING]
//   program --worker ROW CANDIDATE         one figure, for the parent
//
// Peers are preloaded into their workers; our library is opened by its, which choose the back end by
// the environment before. All are called through pointers alike.
#pragma once

#include "measure.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <spawn.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace bench {

inline constexpr std::size_t kib = 1024, mib = 1024 * kib;

struct Peer {
    const char* name;
    const char* preload; // null: the C runtime as it is, or our own library
};

struct Row {
    std::string name;
    std::string unit;
    bool aligned; // to 64 bytes for all, if this matters
    std::function<double()> figure;
};

inline void* (*allocate)(std::size_t);
inline void* (*resize)(void*, std::size_t);
inline void (*release)(void*);

template <typename Function> void bind(Function*& slot, void* library, const char* name) {
    slot = reinterpret_cast<Function*>(dlsym(library, name));
    if (slot == nullptr) {
        std::fprintf(stderr, "no %s: %s\n", name, dlerror());
        std::exit(1);
    }
}

/// Our library on the heap, bound to `allocate`, `resize` and `release`.
inline void* open_heap(const char* file) {
    setenv("KXQ_DLALLOCATOR", "1", 1);
    void* const library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::exit(1);
    }
    bind(allocate, library, "mem_Malloc");
    bind(resize, library, "mem_Realloc");
    bind(release, library, "mem_Free");
    return library;
}

inline void open_peer() {
    bind(allocate, RTLD_DEFAULT, "malloc");
    bind(resize, RTLD_DEFAULT, "realloc");
    bind(release, RTLD_DEFAULT, "free");
}

// Small, fast and the same for everybody.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed * 2 + 1) {}
    std::uint64_t next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return state_;
    }
    std::size_t below(std::size_t bound) { return next() % bound; }

private:
    std::uint64_t state_;
};

// Runs `step` for about the time given and returns nanoseconds of one.
inline double timed(const std::function<void(std::size_t)>& step, double ms = 40) {
    step(1);
    std::size_t count = 1;
    double each = nanoseconds(step, count);
    while (each * static_cast<double>(count) < ms * 1e5 && count < (1U << 26)) {
        count *= 4;
        each = nanoseconds(step, count);
    }
    count = std::max<std::size_t>(1, static_cast<std::size_t>(ms * 1e6 / each));
    return nanoseconds(step, count);
}

inline void touch(void* block, std::size_t size) {
    auto* const bytes = static_cast<volatile char*>(block);
    for (std::size_t i = 0; i < size; i += 4096) {
        bytes[i] = 1;
    }
    bytes[size - 1] = 1;
}

inline std::size_t resident_bytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t total = 0, resident = 0;
    file >> total >> resident;
    return resident * 4096;
}

inline std::string size_text(std::size_t size) {
    return size >= mib   ? std::to_string(size / mib) + " MiB"
           : size >= kib ? std::to_string(size / kib) + " KiB"
                         : std::to_string(size) + " B";
}

// A page that the host has not backed yet costs milliseconds once: everybody's pages are touched
// before anybody is timed.
inline void warm_machine() {
    constexpr std::size_t size = 512 * mib;
    void* const memory =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED) {
        madvise(memory, size, MADV_HUGEPAGE);
        touch(memory, size);
        munmap(memory, size);
    }
}

inline double worker_figure(const char* program, const Row& row, const Peer& peer) {
    int ends[2];
    if (pipe(ends) != 0) {
        std::exit(1);
    }
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        environment.emplace_back(*entry);
    }
    if (peer.preload != nullptr) {
        environment.push_back(std::string("LD_PRELOAD=") + peer.preload);
    }
    std::vector<char*> pointers;
    for (std::string& text : environment) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    std::string self = program, mode = "--worker", row_name = row.name, peer_name = peer.name;
    char* arguments[] = {self.data(), mode.data(), row_name.data(), peer_name.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
    pid_t child = 0;
    const int error =
        posix_spawn(&child, "/proc/self/exe", &actions, nullptr, arguments, pointers.data());
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    std::string text;
    char buffer[128];
    for (ssize_t got = 0; (got = read(ends[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(got));
    }
    close(ends[0]);
    int status = 1;
    if (error == 0) {
        waitpid(child, &status, 0);
    }
    return status == 0 ? std::atof(text.c_str()) : NAN;
}

inline void print_row(const Row& row, const std::vector<double>& medians) {
    std::printf("%-42s %-3s", row.name.c_str(), row.unit.c_str());
    for (std::size_t i = 0; i < medians.size(); ++i) {
        if (std::isnan(medians[i])) {
            std::printf("%17s", "-");
        } else {
            std::printf("%10.3g (%4.2f)", medians[i], medians[i] / medians[0]);
        }
    }
    std::puts("");
    std::fflush(stdout);
}

/// `open` binds the pointers to a candidate.
inline int run(int argc, char** argv, const char* headline, const std::vector<Peer>& peers,
               const std::vector<Row>& rows,
               const std::function<void(const std::string& peer, bool aligned)>& open) {
    if (argc == 4 && std::strcmp(argv[1], "--worker") == 0) {
        for (const Row& row : rows) {
            if (row.name == argv[2]) {
                open(argv[3], row.aligned);
                std::printf("%.6g\n", row.figure());
                return 0;
            }
        }
        return 2;
    }
    const std::string wanted = argc > 1 ? argv[1] : "";
    std::printf("%s\n\n%-46s", headline, "");
    for (const Peer& peer : peers) {
        std::printf("%17s", peer.name);
    }
    std::puts("");
    constexpr int repetitions = 7;
    for (const Row& row : rows) {
        if (row.name.find(wanted) == std::string::npos) {
            continue;
        }
        warm_machine();
        std::vector<std::vector<double>> figures(peers.size());
        for (int repetition = 0; repetition < repetitions; ++repetition) {
            for (std::size_t i = 0; i < peers.size(); ++i) {
                figures[i].push_back(worker_figure(argv[0], row, peers[i]));
            }
        }
        std::vector<double> medians;
        for (const std::vector<double>& values : figures) {
            medians.push_back(median(values));
        }
        print_row(row, medians);
    }
    return 0;
}

} // namespace bench
