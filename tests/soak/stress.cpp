// Threads that come and go allocate, resize, exchange and release blocks through the interface and the allocator
// objects, and work on cache pools that go from hand to hand, while one thread changes options, trims, stops and
// starts the recording and asks for figures. Every block carries what it is checked by. Now and then all threads want
// the same two sizes and give way in between, so that they meet in the locks; now and then all have ended, and the
// switches are turned that may be turned then alone. At the end everything is given back, and the library still
// answers.
//
//   stress [SECONDS [THREADS [SEED]]]     2 seconds, 4 threads at a time
//
// The environment chooses the back end, as for any program. On the heap a memory limit comes and goes, so that
// requests are refused; KXM_STRESS_TINY=1 turns the tiny pool on. A tiny block that grows is not to be refused, so
// then either (odd seeds) there is no limit or (even ones) none of them grows. With KXA_MEM_TRACK the run is
// recorded. KXM_STRESS_REFUSED says that somebody else refuses, too: once, or where it is "often" even threads and what
// the heap begins with. Exit status 1: something was wrong, and is told.
#include <KXMBasMem.h>
#include <kxm_cache_pool.h>
#include <kxm_utf8_names.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <pthread.h>

#include "inject.h"

extern "C" KXMBASMEM_API std::size_t dlmalloc_usable_size(void* ptr);

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kib = 1024, mib = 1024 * kib;

bool present(const char* variable) {
    return std::getenv(variable) != nullptr;
}

// What a back end allows a client, as the interface's header tells.
struct Rules {
    explicit Rules(std::uint64_t seed) : odd(seed % 2 != 0) {}
    bool odd;
    bool heap = mem_usingDL() == 1;
    bool guarded = present("KXA_DEADBEEF");
    bool aligned = !heap && !guarded && present("KXQ_USE_ALIGNED_MEMORY");
    bool tiny = heap && present("KXM_STRESS_TINY");
    bool refuses = heap && !(tiny && odd);
    bool refused_anyhow = present("KXM_STRESS_REFUSED"); // somebody else refuses memory, too
    bool refused_often =
        refused_anyhow && std::strcmp(std::getenv("KXM_STRESS_REFUSED"), "often") == 0;
    bool pools = heap || !refused_anyhow; // elsewhere a refused table of theirs is an access fault
    bool clears = !aligned;               // there mem_Free is not for mem_Calloc's blocks
    bool grows(std::size_t size) const {
        return !aligned && // there a copy is as long as the new size
               !(tiny && (refuses || refused_often) && size <= 128);
    }
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
    std::atomic<std::uint64_t> lost_pools{
        0}; // the memory of a pool whose tables were refused is not given back
};

// A cache pool with what is in it. Serves one thread at a time, and goes from one to the next.
class PoolWork {
public:
    void operate(std::mt19937_64& random) {
        if (held_.empty() || (random() % 8 < 5 && held_.size() < 400)) {
            const std::size_t size = some_size(random);
            add(pool_.Alloc(size), size, random());
            return;
        }
        Held& held = held_[random() % held_.size()];
        check(pool_.Ptr(held.id), SIZE_MAX);
        if (random() % 4 == 0) {
            const std::size_t size = some_size(random);
            held.id = pool_.ReAlloc(held.id, held.size, size);
            check(pool_.Ptr(held.id), std::min(size, held.size));
            held.size = size;
            fill(pool_.Ptr(held.id), size, random());
            return;
        }
        pool_.Free(held.id);
        held = held_.back();
        held_.pop_back();
    }

private:
    struct Held {
        kxm::CachePool::ID id;
        std::size_t size;
    };
    static std::size_t some_size(std::mt19937_64& random) {
        const std::size_t kind = random() % 32;
        return sizeof(Header) + (kind == 0  ? random() % (40 * kib)
                                 : kind < 8 ? random() % (8 * kib)
                                            : random() % 200);
    }
    void add(kxm::CachePool::ID id, std::size_t size, std::uint64_t mark) {
        fill(pool_.Ptr(id), size, mark);
        held_.push_back({id, size});
    }

    mem_Allocator source_{};
    kxm::CachePool pool_{source_};
    std::vector<Held> held_{};
};

// What all threads share.
struct Ground {
    std::array<std::atomic<void*>, 256> exchange{};
    std::array<std::atomic<PoolWork*>, 3> parked{}; // pools that nobody works on
    std::atomic<bool> crowded{false};               // all want the same two sizes
    std::atomic<int> noted{0};                      // refusals to an object
    KXMBasMemPool account{2000, "stress", nullptr};
};

// What is set for it goes when its thread has ended, while others trim. (Destructors of thread_local objects come
// after the objects' memory has gone, in a Windows program by GCC.)
pthread_key_t last_block;

class Worker {
public:
    Worker(const Rules& rules, Ground& ground, Totals& totals, std::uint64_t seed)
        : rules_(rules), ground_(ground), totals_(totals), random_(seed) {}

    void run(std::size_t operations, bool phases) {
        for (std::size_t i = 0; i < operations && fault.load() == nullptr; ++i) {
            if (phases && i % 256 == 0) {
                static constexpr const char* names[] = {"assembly", "solve", "output"};
                mem_Tracker_Interface::EnterPhase(names[below(3)], 0);
            }
            operate();
            if (phases && i % 256 == 255) {
                mem_Tracker_Interface::ExitPhase(0);
            }
            if (ground_.crowded && below(8) == 0) {
                std::this_thread::yield();
            }
        }
        pthread_setspecific(last_block, mem_Malloc(100));
        for (void*& block : own_) {
            release(block);
        }
        totals_.operations += operations;
        totals_.refusals += refusals_;
    }

private:
    std::size_t below(std::size_t bound) { return random_() % bound; }
    std::size_t some_size() {
        if (ground_.crowded) {
            return below(2) == 0 ? 64 : 200;
        }
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
        if (below(4) == 0) {
            ground_.account.Free(place);
        } else {
            mem_Free(place);
        }
        place = nullptr;
    }
    // Each is noted with a call stack, which takes long under Wine: some are enough.
    void note_refusal() {
        if (++ground_.noted == 60) {
            KXMBasErrorStack::Deactivate();
        }
    }
    // By the entry, the pool that accounts or the object, all of which end there.
    void* any_malloc(std::size_t size) {
        switch (below(4)) {
        case 0:
            return ground_.account.Alloc(size);
        case 1:
            try {
                return mem_Allocator().Malloc("stress", size);
            } catch (const std::bad_alloc&) {
                note_refusal();
                return nullptr;
            }
        default:
            return mem_Malloc(size);
        }
    }

    void operate() {
        void*& place = own_[below(own_.size())];
        const std::size_t size = some_size();
        switch (below(16)) {
        case 0:
        case 1:
        case 2:
        case 3: // a block of another thread's, which goes on or ends here
            place = ground_.exchange[below(ground_.exchange.size())].exchange(place);
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
            if (rules_.heap) {
                align(std::size_t{64} << below(15), size);
            }
            break;
        }
        case 8:
        case 9:
            release(place);
            break;
        case 10:
            if (below(128) == 0 && rules_.pools) {
                work_on_a_pool();
            }
            release(place);
            break;
        default:
            release(place);
            adopt(place, any_malloc(size), size);
        }
    }

    void align(std::size_t alignment, std::size_t size) {
        mem_DLAllocator heap;
        void* const block = heap.Memalign("stress", alignment, size);
        expect(block != nullptr || rules_.refuses || rules_.refused_anyhow,
               "refused without a limit");
        if (block != nullptr) {
            expect(reinterpret_cast<std::uintptr_t>(block) % alignment == 0, "misaligned");
            fill(block, size, random_());
            std::this_thread::yield();
            check(block, SIZE_MAX);
            heap.Free("stress", block);
        }
    }

    void work_on_a_pool() {
        std::atomic<PoolWork*>& place = ground_.parked[below(ground_.parked.size())];
        std::unique_ptr<PoolWork> work(place.exchange(nullptr));
        try {
            if (work == nullptr) {
                work = std::make_unique<PoolWork>();
            }
        } catch (const std::bad_alloc&) {
            ++totals_.lost_pools;
        }
        for (std::size_t i = 500 + below(500); work != nullptr && i > 0; --i) {
            try {
                work->operate(random_);
            } catch (const std::bad_alloc&) {
                expect(rules_.refuses || rules_.refused_anyhow, "a pool refused without a limit");
                note_refusal();
                ++refusals_;
            }
        }
        work.reset(below(8) == 0 ? nullptr : place.exchange(work.release()));
    }

    void resize(void*& place, std::size_t size) {
        const std::size_t old = check(place, SIZE_MAX);
        if (size > old && !rules_.grows(old)) {
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
    Ground& ground_;
    Totals& totals_;
    std::mt19937_64 random_;
    std::array<void*, 48> own_{};
    std::uint64_t refusals_ = 0;
};

std::size_t below(std::mt19937_64& random, std::size_t bound) {
    return random() % bound;
}

// One step of the thread that changes and asks.
void disturb(const Rules& rules, std::mt19937_64& random) {
    // Of a stop's blocks the recording keeps a table, whose growth is not to be refused.
    static bool stopped = false;
    switch (below(random, 16)) {
    case 0:
    case 1:
        mem_Mallopt(-1, below(random, 8) == 0 ? SIZE_MAX : below(random, 4 * mib));
        break;
    case 2:
        mem_Mallopt(-2, 64 * kib << below(random, 5));
        break;
    case 3:
        mem_Mallopt(-3, below(random, 8) == 0 ? below(random, 64 * kib)
                                              : 128 * kib << below(random, 5));
        break;
    case 4:
        if (rules.refuses && !stopped) {
            mem_Mallopt(-5, below(random, 2) == 0 ? 0 : 1 + below(random, 24 * mib));
        }
        break;
    case 5:
        mem_Trim(below(random, 8) == 0 ? SIZE_MAX : below(random, mib));
        break;
    case 6: {
        const mem_DLMallinfoType info = mem_DLMallinfo();
        expect(info.uordblks <= info.usmblks, "more in use than there ever was");
        break;
    }
    case 7:
        if (rules.tiny) { // a slot comes home also while the pool is off
            mem_TBAllocator(below(random, 4) == 0 ? 0 : 1);
        }
        break;
    case 8: // blocks of a stop are left out of the record
        if (below(random, 64) == 0 && !rules.refused_anyhow) {
            stopped = true;
            if (rules.refuses) {
                mem_Mallopt(-5, 0);
            }
            mem_Tracker_Interface::StopTracking();
        } else if (below(random, 4) == 0) {
            mem_Tracker_Interface::StartTracking();
            stopped = false;
        }
        break;
    case 9:
        if (!rules.refuses && !rules.refused_anyhow &&
            below(random, 256) == 0) { // for one thread; tests no request
            const std::unique_ptr<KXMBasAllocatorBase> tracked(new KXMBasMemTrackAlloc);
            void* const block = tracked->Alloc(1 + below(random, 4000));
            tracked->Free(block);
        }
        break;
    case 10: {
        KXMBasMemInfo figures;
        expect(figures.Resident() > 0 || rules.refused_anyhow, "a process without memory");
        break;
    }
    case 11: // for the files to come, the same ones here
        mem_Tracker_Interface::SetOutputName("stress");
        mem_Tracker_Interface::SetRank(static_cast<int>(below(random, 4)));
        break;
    case 12:
        if (below(random, 256) == 0) {
            mem_ScanMemory(MEM_SCAN_SUMMARY_ONLY, ~std::uint64_t{0});
        }
        expect(mem_Mallinfo().committedBytes > 0 || !rules.heap, "a heap without memory");
        break;
    default:
        mem_ErrorMemoryLimit();
        mem_FragmentationInfo();
        expect(mem_Footprint() <= mem_MaxFootprint() / kib || !rules.heap,
               "a footprint above the highest");
    }
}

void join(std::vector<std::thread>& threads) {
    for (std::thread& thread : threads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
}

// While there is one thread: the pool does without its lock, and has it again.
void turn_the_tiny_pool() {
    mem_TBAllocator(1);
    mem_TBThreadLock(false);
    int size = 100;
    void* slot = mem_smallalloc(&size);
    if (slot != nullptr) {
        mem_smallfree(&slot);
    }
    mem_Free(mem_Malloc(20));
    mem_TBThreadLock(true);
}

// A direct mapping whose block is gone, but could not be unmapped, stays as it was, and counted.
std::size_t direct_mappings_kept(const InjectedAccount& account) {
    constexpr std::size_t around = 240; // what of a mapping is not its block's
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < account.kept_count; ++i) {
        const InjectedAccount::Kept kept = account.kept[i];
        auto* const block = static_cast<char*>(const_cast<void*>(kept.base)) + 64;
        const bool direct =
            kept.base != nullptr && dlmalloc_usable_size(block) + around == kept.size;
        bytes += direct ? kept.size : 0;
    }
    return bytes;
}

// All is given back. What the heap still counts as used are the records of its segments, each smaller than what no
// chunk begins or ends in. Of the tiny pool and of a recording there is more; but the footprint is what is held.
void expect_nothing_left(const Rules& rules, const Totals& totals, bool recorded) {
    constexpr std::size_t unit = 64 * kib;
    InjectedAccount account{};
    const bool injected = injected_account(account);
    if (rules.heap && !rules.tiny && !recorded) {
        const mem_DLMallinfoType info = mem_DLMallinfo();
        const std::size_t ends = info.hblkhd % unit;
        expect(info.arena - info.fordblks <= ends + totals.lost_pools * 4 * kib, "blocks left");
        expect(info.hblkhd - ends == direct_mappings_kept(account), "mappings left");
    }
    if (injected) {
        expect(!rules.heap || account.mapped == mem_Footprint() * kib,
               "a footprint that is not what is held");
        expect(account.blocks <= static_cast<long>(8 * totals.lost_pools),
               "blocks of the C runtime left");
    }
}

// Each event is in the files once, in the order of the identifiers, and nothing else.
void expect_whole_record(std::int32_t events) {
    constexpr std::size_t record_words = 10, id_word = 5, whole_file = 131072;
    const char* const folder = std::getenv("KXA_MEM_OUTPUTDIR");
    std::vector<std::int32_t> words;
    std::int32_t next = 0;
    for (int number = 0; next < events; ++number) {
        const std::string name = (folder != nullptr ? std::string(folder) + "/" : std::string()) +
                                 "stress.memT" + std::to_string(number);
        std::FILE* const file = std::fopen(name.c_str(), "rb");
        std::int32_t count = 0;
        bool sound = file != nullptr && std::fread(&count, sizeof count, 1, file) == 1 &&
                     count > 0 && static_cast<std::size_t>(count) <= whole_file;
        words.resize(sound ? static_cast<std::size_t>(count) * record_words : 0);
        sound = sound &&
                std::fread(words.data(), sizeof words[0], words.size(), file) == words.size() &&
                std::fgetc(file) == EOF;
        for (std::size_t at = id_word; sound && at < words.size(); at += record_words) {
            sound = words[at] == next++;
        }
        if (file != nullptr) {
            std::fclose(file);
        }
        if (!sound || (next < events && words.size() != whole_file * record_words)) {
            expect(false, "a record with a gap");
            return;
        }
    }
    expect(next == events, "more in the record than there was");
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
    const Rules rules(seed);
    if (rules.tiny) {
        mem_TBAllocator(1);
        mem_TBThreadLock(true);
    }
#ifndef __SANITIZE_THREAD__
    // What is refused to an object is noted with a call stack. The reader of debug information is not instrumented;
    // the thread checker takes its memory for raced for, and locks itself out when it tells of that inside of it.
    KXMBasErrorStack::Activate();
#endif

    // A heap that is refused its first segment by a large request ends the program, by design: a small one makes the
    // segment, or is refused it in vain.
    for (int attempt = 0; attempt < 2; ++attempt) {
        mem_Free(mem_Malloc(1000));
    }
    if (rules.heap && rules.refused_often && mem_Footprint() == 0) {
        std::puts("not even a first segment");
        return 0;
    }
    pthread_key_create(&last_block, mem_Free);
    static Ground ground;
    ground.account.Activate();
    Totals totals;
    std::mt19937_64 random(seed);
    std::vector<std::thread> threads(static_cast<std::size_t>(at_a_time));
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double>(seconds));
    // A recorded run that lasts would fill the disk.
    constexpr std::uint64_t most_recorded = 3000000;
    for (std::size_t turn = 0; Clock::now() < end && fault.load() == nullptr &&
                               !(recorded && totals.operations.load() > most_recorded);
         ++turn) {
        ground.crowded = turn / 16 % 4 == 3;
        if (rules.tiny && turn % 64 == 0) {
            join(threads);
            turn_the_tiny_pool();
        }
        std::thread& thread = threads[turn % threads.size()];
        if (thread.joinable()) {
            thread.join();
        }
        ++totals.threads;
        // A recorded thread's number is not to be refused: there is no limit until it has it.
        std::atomic<bool> numbered{!recorded};
        if (recorded) {
            mem_Mallopt(-5, 0);
        }
        // Only so many threads have phases, in the order of their first contact.
        const auto work = [&, own_seed = random(),
                           phases = turn + threads.size() + 2 < MEM_MAX_THREADS] {
            if (recorded) {
                mem_ThreadId::Instance();
                mem_ThreadId::Instance(); // where somebody else refused the first
                numbered.store(true);
            }
            Worker(rules, ground, totals, own_seed).run(1000 + own_seed % 20000, phases);
        };
        try {
            thread = std::thread(work);
        } catch (const std::system_error&) {
            expect(rules.refused_often, "no thread");
            numbered.store(true);
        } catch (const std::bad_alloc&) {
            expect(rules.refused_often, "no memory for a thread");
            numbered.store(true);
        }
        while (!numbered.load()) {
            std::this_thread::yield();
        }
        mem_Tracker_Interface::EnterPhase("turn", 0);
        for (int i = 0; i < 40; ++i) {
            disturb(rules, random);
            std::this_thread::yield();
        }
        mem_Tracker_Interface::ExitPhase(0);
    }
    join(threads);
    for (std::atomic<void*>& place : ground.exchange) {
        if (void* const block = place.load()) {
            check(block, SIZE_MAX);
            mem_Free(block);
        }
    }
    for (std::atomic<PoolWork*>& place : ground.parked) {
        delete place.load();
    }
    // Every lock is free, and what was refused was refused for a limit.
    mem_Mallopt(-5, 0);
    void* last = mem_Malloc(8 * mib);
    if (last == nullptr &&
        rules.refused_anyhow) { // which may be the one that somebody else refuses
        last = mem_Malloc(8 * mib);
    }
    expect(last != nullptr || rules.refused_often, "nothing to be had at the end");
    mem_Free(last);
    mem_Trim(0);
    expect_nothing_left(rules, totals, recorded);
    std::printf("%llu operations by %llu threads, %llu refusals, %zu KiB left\n",
                static_cast<unsigned long long>(totals.operations.load()),
                static_cast<unsigned long long>(totals.threads.load()),
                static_cast<unsigned long long>(totals.refusals.load()), mem_Footprint());
    if (recorded) {
        kxm::register_utf8_names();
        mem_ThreadId::Finalize();
        const int events = mem_Tracker_Interface::CurrTransactionId();
        mem_Tracker::Finalize();
        expect_whole_record(events);
    }
    InjectedAccount account{};
    expect(!injected_account(account) || account.met, "no call that was to fail");
    if (const char* const what = fault.load()) {
        std::printf("stress: %s (seed %llu)\n", what, static_cast<unsigned long long>(seed));
        return 1;
    }
    return 0;
}
