// Threads that come and go allocate, resize, exchange and release blocks through the interface, while one thread
// changes options, trims and asks for figures. Every block carries what it is checked by. At the end everything is
// given back, and the library still answers.
//
//   stress [SECONDS [THREADS [SEED]]]     2 seconds, 4 threads at a time
//
// The environment chooses the back end, as for any program. On the heap a memory limit comes and goes, so that
// requests are refused; KXM_STRESS_TINY=1 turns the tiny pool on, and refusals off. With KXA_MEM_TRACK the run is
// recorded. Exit status 1: something was wrong, and is told.
#include <KXMBasMem.h>
#include <kxm_utf8_names.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kib = 1024, mib = 1024 * kib;

bool present(const char* variable) {
    return std::getenv(variable) != nullptr;
}

// What a back end allows a client, as the interface's header tells.
struct Rules {
    bool heap = mem_usingDL() == 1;
    bool guarded = present("KXA_DEADBEEF");
    bool aligned = !heap && !guarded && present("KXQ_USE_ALIGNED_MEMORY");
    bool tiny = heap && present("KXM_STRESS_TINY");
    // A tiny block that grows is not to be refused. KXM_STRESS_REFUSED: somebody else refuses memory, too.
    bool refuses = heap && !tiny;
    bool refused_anyhow = present("KXM_STRESS_REFUSED");
    bool clears = !aligned; // there mem_Free is not for mem_Calloc's blocks
    bool grows = !aligned;  // there a copy is as long as the new size
    std::size_t alignment = guarded || tiny ? 8 : heap || aligned ? 64 : 16;
};

std::atomic<const char*> fault{nullptr};

void expect(bool holds, const char* what) {
    if (!holds) {
        fault.store(what);
    }
}

struct Header {
    std::uint64_t size;
    std::uint64_t mark;
};

// A block's first words are its size and mark; the rest, or its two ends, are filled by the mark.
constexpr std::size_t filled = 256;

void fill(void* block, std::size_t size, std::uint64_t mark) {
    const Header header{size, mark};
    std::memcpy(block, &header, sizeof header);
    auto* const at = static_cast<unsigned char*>(block);
    for (std::size_t i = sizeof header; i < size; ++i) {
        i = i == filled && size > 2 * filled ? size - filled : i;
        at[i] = static_cast<unsigned char>(mark);
    }
}

std::size_t check(const void* block, std::size_t kept) {
    Header header{};
    std::memcpy(&header, block, sizeof header);
    const auto* const at = static_cast<const unsigned char*>(block);
    for (std::size_t i = sizeof header; i < header.size && i < kept; ++i) {
        i = i == filled && header.size > 2 * filled ? header.size - filled : i;
        if (i < kept && at[i] != static_cast<unsigned char>(header.mark)) {
            expect(false, "a block's contents changed");
            break;
        }
    }
    return header.size;
}

struct Totals {
    std::atomic<std::uint64_t> operations{0}, refusals{0}, threads{0};
};

class Worker {
public:
    Worker(const Rules& rules, std::atomic<void*>* exchange, std::size_t places, Totals& totals,
           std::uint64_t seed)
        : rules_(rules), exchange_(exchange), places_(places), totals_(totals), random_(seed) {}

    void run(std::size_t operations) {
        for (std::size_t i = 0; i < operations && fault.load() == nullptr; ++i) {
            operate();
        }
        for (void*& block : own_) {
            release(block);
        }
        totals_.operations += operations;
        totals_.refusals += refusals_;
    }

private:
    std::size_t below(std::size_t bound) { return random_() % bound; }
    std::size_t some_size() {
        const std::size_t kind = below(64);
        return sizeof(Header) + (kind == 0   ? below(2 * mib)
                                 : kind < 4  ? below(64 * kib)
                                 : kind < 20 ? below(2 * kib)
                                             : below(160));
    }
    void adopt(void*& place, void* block, std::size_t size) {
        if (block == nullptr) {
            expect(rules_.refuses || rules_.refused_anyhow, "refused without a limit");
            ++refusals_;
            return;
        }
        expect(reinterpret_cast<std::uintptr_t>(block) % rules_.alignment == 0, "misaligned");
        fill(block, size, random_());
        place = block;
    }
    void release(void*& place) {
        if (place != nullptr) {
            check(place, SIZE_MAX);
        }
        mem_Free(place);
        place = nullptr;
    }

    void operate() {
        void*& place = own_[below(own_.size())];
        const std::size_t size = some_size();
        switch (below(16)) {
        case 0:
        case 1:
        case 2:
        case 3: // a block of another thread's, which goes on or ends here
            place = exchange_[below(places_)].exchange(place);
            break;
        case 4:
        case 5:
            if (place != nullptr) {
                resize(place, size);
            }
            break;
        case 6:
            if (rules_.clears) {
                release(place);
                void* const block = mem_Calloc(1, size);
                for (std::size_t i = 0; block != nullptr && i < size; i += 1 + i / 8) {
                    expect(static_cast<unsigned char*>(block)[i] == 0, "not cleared");
                }
                adopt(place, block, size);
            }
            break;
        case 7: {
            void* const block = mem_Malign(size, 256);
            expect(reinterpret_cast<std::uintptr_t>(block) % 256 == 0, "misaligned");
            mem_MalignFree(block);
            break;
        }
        case 8:
        case 9:
        case 10:
            release(place);
            break;
        default:
            release(place);
            adopt(place, mem_Malloc(size), size);
        }
    }

    void resize(void*& place, std::size_t size) {
        const std::size_t old = check(place, SIZE_MAX);
        if (size > old && !rules_.grows) {
            return;
        }
        void* const block = mem_Realloc(place, size);
        if (block == nullptr) {
            expect(rules_.refuses || rules_.refused_anyhow, "refused without a limit");
            ++refusals_;
            check(place, SIZE_MAX); // as it was
            return;
        }
        check(block, std::min(old, size));
        adopt(place, block, size);
    }

    const Rules& rules_;
    std::atomic<void*>* exchange_;
    std::size_t places_;
    Totals& totals_;
    std::mt19937_64 random_;
    std::array<void*, 48> own_{};
    std::uint64_t refusals_ = 0;
};

// One step of the thread that changes and asks.
void disturb(const Rules& rules, std::mt19937_64& random) {
    const std::size_t kind = random() % 10;
    if (kind < 2) {
        mem_Mallopt(-1, random() % (4 * mib));
    } else if (kind == 2) {
        mem_Mallopt(-2, 64 * kib << random() % 5);
    } else if (kind == 3) {
        mem_Mallopt(-3, 128 * kib << random() % 5);
    } else if (kind == 4 && rules.refuses) {
        mem_Mallopt(-5, random() % 2 == 0 ? 0 : 1 + random() % (24 * mib));
    } else if (kind == 5) {
        mem_Trim(random() % mib);
    } else if (kind == 6) {
        const mem_DLMallinfoType info = mem_DLMallinfo();
        expect(info.uordblks <= info.usmblks, "more in use than there ever was");
    } else {
        mem_ErrorMemoryLimit();
        mem_FragmentationInfo();
        expect(mem_Footprint() <= mem_MaxFootprint() / kib || !rules.heap,
               "a footprint above the highest");
    }
}

} // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 2;
    const int at_a_time = argc > 2 ? std::atoi(argv[2]) : 4;
    const auto seed = static_cast<std::uint64_t>(argc > 3 ? std::atoll(argv[3]) : 1);
    if (seconds <= 0 || at_a_time < 1 || at_a_time > 1000) {
        std::fputs("stress [SECONDS [THREADS [SEED]]]\n", stderr);
        return 2;
    }
    const bool recorded = mem_Tracker_Interface::IsTrackingActive();
    mem_Tracker_Interface::SetOutputName("stress");
    const Rules rules;
    if (rules.tiny) {
        mem_TBAllocator(1);
        mem_TBThreadLock(true);
    }

    static std::array<std::atomic<void*>, 256> exchange;
    Totals totals;
    std::mt19937_64 random(seed);
    std::vector<std::thread> threads(static_cast<std::size_t>(at_a_time));
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double>(seconds));
    // A recorded run that lasts would fill the disk.
    constexpr std::uint64_t most_recorded = 3000000;
    for (std::size_t next = 0; Clock::now() < end && fault.load() == nullptr &&
                               !(recorded && totals.operations.load() > most_recorded);
         next = (next + 1) % threads.size()) {
        if (threads[next].joinable()) {
            threads[next].join();
        }
        ++totals.threads;
        threads[next] = std::thread([&, own_seed = random()] {
            Worker(rules, exchange.data(), exchange.size(), totals, own_seed)
                .run(1000 + own_seed % 20000);
        });
        mem_Tracker_Interface::EnterPhase("turn", 0);
        for (int i = 0; i < 40; ++i) {
            disturb(rules, random);
            std::this_thread::yield();
        }
        mem_Tracker_Interface::ExitPhase(0);
    }
    for (std::thread& thread : threads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
    for (std::atomic<void*>& place : exchange) {
        if (void* const block = place.load()) {
            check(block, SIZE_MAX);
            mem_Free(block);
        }
    }
    // Every lock is free, and what was refused was refused for a limit.
    mem_Mallopt(-5, 0);
    void* const last = mem_Malloc(8 * mib);
    expect(last != nullptr || rules.refused_anyhow, "nothing to be had at the end");
    mem_Free(last);
    mem_Trim(0);
    std::printf("%llu operations by %llu threads, %llu refusals, %zu KiB left\n",
                static_cast<unsigned long long>(totals.operations.load()),
                static_cast<unsigned long long>(totals.threads.load()),
                static_cast<unsigned long long>(totals.refusals.load()), mem_Footprint());
    if (recorded) {
        kxm::register_utf8_names();
        mem_ThreadId::Finalize();
        mem_Tracker::Finalize();
    }
    if (const char* const what = fault.load()) {
        std::printf("stress: %s (seed %llu)\n", what, static_cast<unsigned long long>(seed));
        return 1;
    }
    return 0;
}
