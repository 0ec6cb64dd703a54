// The heap beside other allocators, on work that a solver does; see workers.h.
#include "workers.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>

namespace {

using namespace bench;

// ---- Allocators
// ----------------------------------------------------------------------------------

const std::vector<Peer> peers = {
    {"heap", nullptr},
    {"heap profile", nullptr},
    {"C runtime", nullptr},
    {"jemalloc", "libjemalloc.so.2"},
    {"mimalloc", "libmimalloc.so.2"},
    {"tcmalloc", "libtcmalloc_minimal.so.4"},
    {"oneTBB", "libtbbmalloc_proxy.so.2"},
};

int (*posix_align)(void**, std::size_t, std::size_t);

void* allocate_aligned(std::size_t size) {
    void* block = nullptr;
    return posix_align(&block, 64, size) == 0 ? block : nullptr;
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
        void* const library = open_heap(KXM_LIBRARY);
        if (name == "heap profile") {
            apply_profile(library);
        }
        return; // every block is aligned to 64 bytes
    }
    open_peer();
    if (aligned) {
        bind(posix_align, RTLD_DEFAULT, "posix_memalign");
        allocate = allocate_aligned;
    }
}

// ---- Work
// ----------------------------------------------------------------------------------------

std::vector<std::uint32_t> log_uniform(std::size_t count, double low, double high) {
    Random random(7);
    std::vector<std::uint32_t> sizes(count);
    for (std::uint32_t& size : sizes) {
        const double u = static_cast<double>(random.next() >> 11) * 0x1p-53;
        size = static_cast<std::uint32_t>(low * std::pow(high / low, u));
    }
    return sizes;
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

} // namespace

int main(int argc, char** argv) {
    return run(
        argc, argv,
        "Medians, and in brackets the ratio to the heap with its defaults (above 1: slower or "
        "more)",
        peers, all_rows(), open_allocator);
}
