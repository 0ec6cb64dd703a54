// The heap beside other allocators, on work that a solver does. Each figure is taken in a process
// of its own, so that no allocator meets another's leavings; the processes of a row take turns, and
// a row tells each one's median and, beside it, the ratio to the heap with its defaults.
//
//   bench_heap [ROW-SUBSTRING]
//   bench_heap --worker ROW ALLOCATOR      one figure, for the parent
//
// Peers are preloaded into their workers; our library is opened by its, which choose the heap by
// the environment before. All are called through pointers alike.
#include "measure.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <functional>
#include <spawn.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

constexpr std::size_t kib = 1024, mib = 1024 * kib;

// ---- Allocators
// ----------------------------------------------------------------------------------

struct Peer {
    const char* name;
    const char* preload; // null: the C runtime as it is, or our own library
};
constexpr Peer peers[] = {
    {"heap", nullptr},
    {"heap profile", nullptr},
    {"C runtime", nullptr},
    {"jemalloc", "libjemalloc.so.2"},
    {"mimalloc", "libmimalloc.so.2"},
    {"tcmalloc", "libtcmalloc_minimal.so.4"},
    {"oneTBB", "libtbbmalloc_proxy.so.2"},
};

void* (*allocate)(std::size_t);
void* (*resize)(void*, std::size_t);
void (*release)(void*);
int (*posix_align)(void**, std::size_t, std::size_t);

void* allocate_aligned(std::size_t size) {
    void* block = nullptr;
    return posix_align(&block, 64, size) == 0 ? block : nullptr;
}

template <typename Function> void bind(Function*& slot, void* library, const char* name) {
    slot = reinterpret_cast<Function*>(dlsym(library, name));
    if (slot == nullptr) {
        std::fprintf(stderr, "bench_heap: no %s: %s\n", name, dlerror());
        std::exit(1);
    }
}

// What docs/backends.md recommends for a solver that has its node to itself.
void apply_profile(void* library) {
    int (*option)(int, std::size_t) = nullptr;
    bind(option, library, "mem_Mallopt");
    constexpr int trim_threshold = -1, granularity = -2, mmap_threshold = -3;
    option(trim_threshold, SIZE_MAX);
    option(granularity, 64 * mib);
    option(mmap_threshold, SIZE_MAX);
}

void open_allocator(const std::string& name, bool aligned) {
    if (name == "heap" || name == "heap profile") {
        setenv("KXQ_DLALLOCATOR", "1", 1);
        void* const library = dlopen(KXM_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            std::fprintf(stderr, "bench_heap: %s\n", dlerror());
            std::exit(1);
        }
        bind(allocate, library, "mem_Malloc");
        bind(resize, library, "mem_Realloc");
        bind(release, library, "mem_Free");
        if (name == "heap profile") {
            apply_profile(library);
        }
        return; // every block is aligned to 64 bytes
    }
    bind(allocate, RTLD_DEFAULT, "malloc");
    bind(resize, RTLD_DEFAULT, "realloc");
    bind(release, RTLD_DEFAULT, "free");
    if (aligned) {
        bind(posix_align, RTLD_DEFAULT, "posix_memalign");
        allocate = allocate_aligned;
    }
}

// ---- Work
// ----------------------------------------------------------------------------------------

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

std::vector<std::uint32_t> log_uniform(std::size_t count, double low, double high) {
    Random random(7);
    std::vector<std::uint32_t> sizes(count);
    for (std::uint32_t& size : sizes) {
        const double u = static_cast<double>(random.next() >> 11) * 0x1p-53;
        size = static_cast<std::uint32_t>(low * std::pow(high / low, u));
    }
    return sizes;
}

void touch(void* block, std::size_t size) {
    auto* const bytes = static_cast<volatile char*>(block);
    for (std::size_t i = 0; i < size; i += 4096) {
        bytes[i] = 1;
    }
    bytes[size - 1] = 1;
}

// Runs `step` for about the time given and returns nanoseconds of one.
double timed(const std::function<void(std::size_t)>& step, double ms = 40) {
    step(1);
    std::size_t count = 1;
    double each = bench::nanoseconds(step, count);
    while (each * static_cast<double>(count) < ms * 1e5 && count < (1U << 26)) {
        count *= 4;
        each = bench::nanoseconds(step, count);
    }
    count = std::max<std::size_t>(1, static_cast<std::size_t>(ms * 1e6 / each));
    return bench::nanoseconds(step, count);
}

// Pairs of allocate and free, `depth` blocks held at once.
void pairs(std::size_t size, std::size_t depth, std::size_t count) {
    std::array<void*, 32> held;
    for (std::size_t done = 0; done < count; done += depth) {
        for (std::size_t i = 0; i < depth; ++i) {
            held[i] = allocate(size);
            bench::escape(held[i]);
        }
        for (std::size_t i = 0; i < depth; ++i) {
            release(held[i]);
        }
    }
}

// A working set whose blocks are replaced at random.
class WorkingSet {
public:
    WorkingSet(std::size_t blocks, std::uint64_t seed)
        : sizes_(log_uniform(65536, 16, 4096)), random_(seed), held_(blocks) {
        for (void*& block : held_) {
            block = allocate(next_size());
        }
    }
    ~WorkingSet() {
        for (void* const block : held_) {
            release(block);
        }
    }
    WorkingSet(const WorkingSet&) = delete;
    WorkingSet& operator=(const WorkingSet&) = delete;

    void replace(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            void*& block = held_[random_.below(held_.size())];
            release(block);
            block = allocate(next_size());
            *static_cast<char*>(block) = 1;
        }
    }

private:
    std::size_t next_size() { return sizes_[at_++ % sizes_.size()]; }

    std::vector<std::uint32_t> sizes_;
    std::size_t at_ = 0;
    Random random_;
    std::vector<void*> held_;
};

// Allocates, touches and gives back a set of blocks.
void touched_set(const std::vector<std::size_t>& sizes) {
    std::vector<void*> held;
    for (const std::size_t size : sizes) {
        held.push_back(allocate(size));
        touch(held.back(), size);
    }
    for (void* const block : held) {
        release(block);
    }
}

std::vector<std::size_t> vectors() {
    std::vector<std::size_t> sizes;
    Random random(11);
    for (int i = 0; i < 400; ++i) {
        sizes.push_back(3000 + random.below(27000));
    }
    return sizes;
}

void arrays_in_turn(std::size_t rounds) {
    for (std::size_t round = 0; round < rounds; ++round) {
        for (std::size_t size = 1 * mib; size <= 64 * mib; size *= 2) {
            void* const block = allocate(size);
            touch(block, size);
            release(block);
        }
    }
}

void mix(std::size_t rounds) {
    const std::vector<std::size_t> small = vectors();
    for (std::size_t round = 0; round < rounds; ++round) {
        std::vector<void*> arrays;
        for (const std::size_t size : {1 * mib, 2 * mib, 4 * mib, 8 * mib, 16 * mib}) {
            arrays.push_back(allocate(size));
            touch(arrays.back(), size);
        }
        touched_set(small);
        for (void* const block : arrays) {
            release(block);
        }
    }
}

void growth(std::size_t rounds) {
    for (std::size_t round = 0; round < rounds; ++round) {
        std::size_t size = 64;
        void* block = allocate(size);
        while (size < 64 * mib) {
            const std::size_t larger = size + size / 2;
            block = resize(block, larger);
            touch(static_cast<char*>(block) + size, larger - size);
            size = larger;
        }
        release(block);
    }
}

// Two threads do the same at once; the time of one operation of either.
double on_two_threads(const std::function<void(std::size_t)>& step, std::size_t count) {
    return bench::nanoseconds(
        [&](std::size_t n) {
            std::thread other([&] { step(n); });
            step(n);
            other.join();
        },
        count);
}

// One thread allocates, the other frees, through a ring.
double freed_by_another(std::size_t count) {
    constexpr std::size_t capacity = 1024;
    static std::array<std::atomic<void*>, capacity> ring;
    return bench::nanoseconds(
        [&](std::size_t n) {
            std::thread consumer([&] {
                for (std::size_t i = 0; i < n; ++i) {
                    std::atomic<void*>& slot = ring[i % capacity];
                    void* block = nullptr;
                    while ((block = slot.exchange(nullptr, std::memory_order_acquire)) == nullptr) {
                        std::this_thread::yield();
                    }
                    release(block);
                }
            });
            for (std::size_t i = 0; i < n; ++i) {
                std::atomic<void*>& slot = ring[i % capacity];
                while (slot.load(std::memory_order_relaxed) != nullptr) {
                    std::this_thread::yield();
                }
                slot.store(allocate(16 + i % 500), std::memory_order_release);
            }
            consumer.join();
        },
        count);
}

std::size_t resident_bytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t total = 0, resident = 0;
    file >> total >> resident;
    return resident * 4096;
}

// Resident over live bytes: after a working set has been replaced often, or after half was freed.
double resident_ratio(bool free_half) {
    const std::vector<std::uint32_t> sizes = log_uniform(65536, 16, 4096);
    constexpr std::size_t blocks = 100000;
    std::vector<std::pair<void*, std::size_t>> held(blocks, {nullptr, 0});
    Random random(3);
    const std::size_t before = resident_bytes();
    std::size_t live = 0, at = 0;
    const auto place = [&](std::pair<void*, std::size_t>& slot) {
        slot.second = sizes[at++ % sizes.size()];
        slot.first = allocate(slot.second);
        std::memset(slot.first, 1, slot.second);
        live += slot.second;
    };
    for (auto& slot : held) {
        place(slot);
    }
    for (std::size_t i = 0; i < 5 * blocks; ++i) {
        auto& slot = held[random.below(blocks)];
        release(slot.first);
        live -= slot.second;
        place(slot);
    }
    if (free_half) {
        for (std::size_t i = 0; i < blocks; ++i) {
            if (random.below(2) == 0) {
                release(held[i].first);
                live -= held[i].second;
            }
        }
    }
    return static_cast<double>(resident_bytes() - before) / static_cast<double>(live);
}

// ---- Rows
// ----------------------------------------------------------------------------------------

struct Row {
    std::string name;
    std::string unit;
    bool aligned; // to 64 bytes for all; ours always is
    std::function<double()> figure;
};

std::string size_text(std::size_t size) {
    return size >= mib   ? std::to_string(size / mib) + " MiB"
           : size >= kib ? std::to_string(size / kib) + " KiB"
                         : std::to_string(size) + " B";
}

std::vector<Row> all_rows() {
    std::vector<Row> rows;
    for (const bool aligned : {true, false}) {
        const std::string at = aligned ? ", at 64" : ", natural";
        for (const std::size_t depth : {1U, 32U}) {
            for (std::size_t size = 64; size <= 1 * mib; size *= 4) {
                rows.push_back({"pair " + size_text(size) + " depth " + std::to_string(depth) + at,
                                "ns", aligned, [=] {
                                    return timed([=](std::size_t n) { pairs(size, depth, n); });
                                }});
            }
        }
        for (const std::size_t blocks : {1000U, 100000U}) {
            rows.push_back({"replace in " + std::to_string(blocks) + at, "ns", aligned, [=] {
                                WorkingSet set(blocks, 5);
                                return timed([&](std::size_t n) { set.replace(n); });
                            }});
        }
        rows.push_back({"vectors 3-30 KB touched" + at, "ms", aligned, [] {
                            const std::vector<std::size_t> sizes = vectors();
                            return timed([&](std::size_t n) {
                                       for (std::size_t i = 0; i < n; ++i) {
                                           touched_set(sizes);
                                       }
                                   }) /
                                   1e6;
                        }});
        rows.push_back({"arrays 1-64 MiB touched in turn" + at, "ms", aligned,
                        [] { return timed(arrays_in_turn) / 1e6; }});
        rows.push_back({"vectors beside arrays 1-16 MiB" + at, "ms", aligned,
                        [] { return timed(mix) / 1e6; }});
    }
    rows.push_back(
        {"realloc growth to 64 MiB, natural", "ms", false, [] { return timed(growth) / 1e6; }});
    rows.push_back({"two threads: pair 256 B, natural", "ns", false, [] {
                        const auto step = [](std::size_t n) { pairs(256, 1, n); };
                        on_two_threads(step, 1000);
                        return on_two_threads(step, 300000);
                    }});
    rows.push_back({"two threads: replace in 1000, natural", "ns", false, [] {
                        const auto step = [](std::size_t n) { WorkingSet(1000, n).replace(n); };
                        on_two_threads(step, 1000);
                        return on_two_threads(step, 300000);
                    }});
    rows.push_back({"freed by another thread, natural", "ns", false, [] {
                        freed_by_another(1000);
                        return freed_by_another(300000);
                    }});
    for (const bool half : {false, true}) {
        rows.push_back(
            {std::string("resident over live") + (half ? ", half freed" : "") + ", at 64", "x",
             true, [=] { return resident_ratio(half); }});
    }
    return rows;
}

// ---- Parent and workers
// --------------------------------------------------------------------------

// A page that the host has not backed yet costs milliseconds once: everybody's pages are touched
// before anybody is timed.
void warm_machine() {
    constexpr std::size_t size = 512 * mib;
    void* const memory =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED) {
        madvise(memory, size, MADV_HUGEPAGE);
        touch(memory, size);
        munmap(memory, size);
    }
}

double worker_figure(const char* program, const Row& row, const Peer& peer) {
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

int work(const std::string& row_name, const std::string& peer_name) {
    for (const Row& row : all_rows()) {
        if (row.name == row_name) {
            open_allocator(peer_name, row.aligned);
            std::printf("%.6g\n", row.figure());
            return 0;
        }
    }
    return 2;
}

void print_row(const Row& row, const std::vector<double>& medians) {
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

} // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--worker") == 0) {
        return work(argv[2], argv[3]);
    }
    const std::string wanted = argc > 1 ? argv[1] : "";
    std::printf(
        "Medians, and in brackets the ratio to the heap with its defaults (above 1: slower or "
        "more)\n\n%-46s",
        "");
    for (const Peer& peer : peers) {
        std::printf("%17s", peer.name);
    }
    std::puts("");
    constexpr int repetitions = 7;
    for (const Row& row : all_rows()) {
        if (row.name.find(wanted) == std::string::npos) {
            continue;
        }
        warm_machine();
        std::vector<std::vector<double>> figures(std::size(peers));
        for (int repetition = 0; repetition < repetitions; ++repetition) {
            for (std::size_t i = 0; i < std::size(peers); ++i) {
                figures[i].push_back(worker_figure(argv[0], row, peers[i]));
            }
        }
        std::vector<double> medians;
        for (const std::vector<double>& values : figures) {
            medians.push_back(bench::median(values));
        }
        print_row(row, medians);
    }
    return 0;
}
