// A million steps through the interface, the tiny pool, a cache pool and the recorder, by a fixed course of
// random numbers, told as figures and as digests of everything that a client can observe but addresses. Both
// systems must tell the same, and the same as the file beside this one: footprints, statistics, refusals,
// identifiers and recorded transactions do not depend on where a program runs.
//
//   agreement EXPECTED [--renew]   compares with the file, or writes it
//
// It wants KXQ_DLALLOCATOR, KXA_MEM_TRACK and KXA_MEM_OUTPUTDIR, a folder that it makes and removes.
#include <KXMBasMem.h>
#include <kxm_cache_pool.h>
#include <kxm_utf8_names.h>

#include <array>
#include <concepts>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

constexpr std::size_t steps = 1000000, steps_a_line = 50000, steps_a_statistic = 256;
constexpr std::size_t kib = 1024, mib = 1024 * kib;

// FNV-1a over words: what went in, in its order, as one number.
class Digest {
public:
    template <std::integral Word> void add(Word value) {
        auto word = static_cast<std::uint64_t>(value);
        for (int byte = 0; byte < 8; ++byte, word >>= 8) {
            value_ = (value_ ^ (word & 0xFF)) * 0x100000001B3;
        }
    }
    std::uint64_t value() const { return value_; }

private:
    std::uint64_t value_ = 0xCBF29CE484222325;
};

// SplitMix64 (Steele, Lea and Flood, "Fast splittable pseudorandom number generators", 2014); the standard
// library's distributions differ between systems.
class Random {
public:
    std::uint64_t next() {
        std::uint64_t z = state_ += 0x9E3779B97F4A7C15;
        z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
        z = (z ^ z >> 27) * 0x94D049BB133111EB;
        return z ^ z >> 31;
    }
    std::size_t below(std::size_t end) { return next() % end; }

private:
    std::uint64_t state_ = 2026;
};

class Course {
public:
    explicit Course(std::ostream& told) : told_(told), pool_(source_) {}

    void run() {
        for (std::size_t step = 1; step <= steps; ++step) {
            one_step();
            digest_.add(mem_Footprint());
            if (step % steps_a_statistic == 0) {
                add_statistics();
            }
            if (step % steps_a_line == 0) {
                tell("step " + std::to_string(step));
            }
        }
        release_all();
        mem_Trim(0);
        tell("all released");
    }

private:
    struct Record {
        kxm::CachePool::ID id = 0U;
        std::size_t size = 0;
    };

    std::size_t some_size() {
        switch (random_.below(32)) {
        case 0: // what is mapped directly, or grows the segments by more than their unit
            switch (random_.below(256)) {
            case 0: // a large array
                return 4 * mib + random_.below(76 * mib);
            default:
                return random_.below(4) == 0 ? random_.below(3 * mib) : random_.below(256 * kib);
            }
        case 1:
        case 2:
        case 3:
        case 4:
            return random_.below(16 * kib);
        case 5:
        case 6:
        case 7:
        case 8:
        case 9:
        case 10:
            return random_.below(kib);
        default:
            return random_.below(160);
        }
    }

    void** some_block() { return &blocks_[random_.below(blocks_.size())]; }

    void one_step() {
        const std::size_t kind = random_.below(1000);
        if (kind < 400) {
            replace(mem_Malloc(some_size()));
        } else if (kind < 410) {
            align();
        } else if (kind < 420 && !limited_) { // a refusal prints a call stack
            replace(mem_OperatorNewThrow(1 + some_size()));
        } else if (kind < 440) {
            const std::size_t count = 1 + random_.below(16); // arguments have no order
            replace(mem_Calloc(count, 1 + some_size() / 16));
        } else if (kind < 620) {
            replace(nullptr);
        } else if (kind < 740) {
            resize();
        } else if (kind < 960) {
            record();
        } else if (kind < 980) {
            phase();
        } else {
            option();
        }
    }

    void replace(void* fresh) {
        void** const block = some_block();
        mem_Free(*block);
        *block = fresh;
        digest_.add(fresh != nullptr ? 1 : 0);
    }

    // Small ones, which the C runtime has in its own heap: where it would map memory decides which segments of
    // ours are neighbours, and so are merged.
    void align() {
        void*& block = aligned_[random_.below(aligned_.size())];
        mem_MalignFree(block);
        const std::size_t alignment = std::size_t{1} << random_.below(13);
        block = mem_Malign(1 + random_.below(kib), alignment);
        digest_.add(reinterpret_cast<std::uintptr_t>(block) % alignment);
    }

    void resize() {
        void** const block = some_block();
        const std::size_t size = 1 + some_size();
        if (limited_) { // a tiny block that is refused more faults, and is meant to
            replace(mem_Malloc(size));
            return;
        }
        void* const moved = mem_Realloc(*block, size);
        // Whether a block stayed is the heap's doing, not the system's.
        digest_.add((moved != nullptr ? 1U : 0U) | (moved == *block ? 2U : 0U));
        *block = moved != nullptr ? moved : *block;
    }

    void record() {
        Record& chosen = records_[random_.below(records_.size())];
        const std::size_t what = random_.below(8);
        try {
            if (what < 3 || chosen.id.IsNull()) {
                pool_.Free(chosen.id);
                chosen = {};
                const std::size_t size =
                    1 + (random_.below(64) == 0 ? random_.below(40 * kib) : random_.below(600));
                chosen = {pool_.Alloc(size), size};
            } else if (what < 5) {
                const std::size_t size = 1 + random_.below(random_.below(64) == 0 ? 20 * kib : 600);
                chosen = {pool_.ReAlloc(chosen.id, chosen.size, size), size};
            } else {
                pool_.Free(chosen.id);
                chosen = {};
            }
        } catch (const std::bad_alloc&) {
            digest_.add(0xBAD);
        }
        digest_.add(chosen.id.Value());
    }

    void phase() {
        static constexpr std::array<const char*, 4> names{"assembly", "factor", "solve", "write"};
        if (depth_ < 6 && random_.below(2) == 0) {
            mem_Tracker_Interface::EnterPhase(names[random_.below(names.size())], 0);
            ++depth_;
        } else if (depth_ > 0) {
            mem_Tracker_Interface::ExitPhase(0);
            --depth_;
        }
    }

    void option() {
        switch (random_.below(8)) {
        case 0:
            digest_.add(mem_Mallopt(-1, random_.below(4 * mib)));
            break;
        case 1:
            digest_.add(mem_Mallopt(-2, 64 * kib << random_.below(6)));
            break;
        case 2:
            digest_.add(mem_Mallopt(-3, 128 * kib << random_.below(5)));
            break;
        case 3: // sometimes below what is held: every growth is refused then
            limited_ = random_.below(4) == 0;
            digest_.add(mem_Mallopt(-5, limited_ ? 1 + random_.below(64 * mib) : 0));
            break;
        case 4:
            digest_.add(mem_Trim(random_.below(mib)));
            break;
        case 5:
            tiny_ = !tiny_;
            mem_TBAllocator(tiny_ ? 1 : 0);
            break;
        default:
            digest_.add(mem_ErrorMemoryLimit());
            digest_.add(mem_FragmentationInfo());
            digest_.add(mem_MemoryLimit());
            break;
        }
    }

    mem_DLMallinfoType add_statistics() {
        const mem_DLMallinfoType info = mem_DLMallinfo();
        for (const std::uint64_t figure : {info.arena, info.ordblks, info.hblkhd, info.usmblks,
                                           info.uordblks, info.fordblks, info.keepcost}) {
            digest_.add(figure);
        }
        return info;
    }

    void tell(const std::string& when) {
        const mem_DLMallinfoType info = add_statistics();
        told_ << when << ": footprint " << mem_Footprint() << " KiB, highest " << mem_MaxFootprint()
              << ", in use " << info.uordblks << ", free " << info.fordblks << " in "
              << info.ordblks << " chunks, mapped " << info.hblkhd << ", top " << info.keepcost
              << ", next transaction " << mem_Tracker_Interface::CurrTransactionId() << ", digest "
              << digest_.value() << '\n';
    }

    void release_all() {
        for (void*& block : blocks_) {
            mem_Free(block);
            block = nullptr;
        }
        for (void*& block : aligned_) {
            mem_MalignFree(block);
        }
        for (Record& record : records_) {
            pool_.Free(record.id);
        }
        for (; depth_ > 0; --depth_) {
            mem_Tracker_Interface::ExitPhase(0);
        }
    }

    std::ostream& told_;
    Random random_;
    Digest digest_;
    mem_Allocator source_;
    kxm::CachePool pool_;
    // Of a size that the compiler's own allocations cannot disturb: nothing of these is from the heap.
    std::array<void*, 3000> blocks_{};
    std::array<void*, 100> aligned_{};
    std::array<Record, 20000> records_{};
    int depth_ = 0;
    bool tiny_ = false;
    bool limited_ = false;
};

template <class Word> Word word_at(const std::string& bytes, std::size_t at) {
    Word word;
    std::memcpy(&word, bytes.data() + at, sizeof word);
    return word;
}

// The recorded transactions with each block's address as the number of its allocation, since systems differ in
// what addresses they hand out again. A free's phase path has no meaning and is left out.
void tell_records(const std::string& base, std::ostream& told) {
    Digest digest;
    std::unordered_map<std::uint64_t, std::uint64_t> live;
    std::uint64_t blocks = 0;
    const auto leave = [&](std::uint64_t address) {
        const auto block = live.extract(address);
        digest.add(block.empty() ? 0 : block.mapped());
    };
    const auto enter = [&](std::uint64_t address) {
        digest.add(address == 0 ? 0 : (live[address] = ++blocks));
    };
    std::size_t count = 0;
    for (int file = 0;; ++file) {
        std::ifstream in(base + ".memT" + std::to_string(file), std::ios::binary);
        if (!in) {
            break;
        }
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        const auto records = static_cast<std::size_t>(word_at<std::int32_t>(bytes, 0));
        if (bytes.size() != 4 + 40 * records) {
            told << "a file of the wrong length\n";
            return;
        }
        for (std::size_t at = 4; at < bytes.size(); at += 40, ++count) {
            const auto address = word_at<std::uint64_t>(bytes, at);
            const auto type = word_at<std::int32_t>(bytes, at + 16);
            if (type == mem_Transaction::e_free) {
                leave(address);
            } else {
                leave(word_at<std::uint64_t>(bytes, at + 8));
                enter(address);
                digest.add(word_at<std::uint32_t>(bytes, at + 36));
            }
            digest.add(type);
            digest.add(word_at<std::uint32_t>(bytes, at + 20));
            digest.add(word_at<std::uint64_t>(bytes, at + 24));
            digest.add(word_at<std::uint32_t>(bytes, at + 32));
        }
    }
    told << count << " records of " << blocks << " blocks, digest " << digest.value() << '\n';
}

std::string whole_file(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The phase paths in the order of their ids.
void tell_phases(const std::string& base, std::ostream& told) {
    constexpr std::size_t record_bytes = 131076;
    const std::string bytes = whole_file(base + ".phaseStack");
    std::map<std::int32_t, std::string> paths;
    for (std::size_t at = 4; at + record_bytes <= bytes.size(); at += record_bytes) {
        paths.emplace(word_at<std::int32_t>(bytes, at), bytes.data() + at + 4);
    }
    Digest digest;
    for (const auto& [id, path] : paths) {
        digest.add(id);
        for (const char byte : path + '\n') {
            digest.add(byte);
        }
    }
    told << paths.size() << " paths of " << bytes.size() << " bytes, the last "
         << (paths.empty() ? "" : paths.rbegin()->second) << ", digest " << digest.value() << '\n';
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2 || mem_usingDL() == 0 || !mem_Tracker_Interface::IsTrackingActive() ||
        std::getenv("KXA_MEM_OUTPUTDIR") == nullptr) {
        std::fputs("agreement: wants a file to compare with and the variables of its head\n",
                   stderr);
        return 2;
    }
    std::ostringstream told;
    mem_Tracker_Interface::SetOutputName("agreement");
    const std::filesystem::path folder = std::getenv("KXA_MEM_OUTPUTDIR");
    std::filesystem::remove_all(
        folder); // what a longer run left would be read as the end of this one
    std::filesystem::create_directories(folder);
    {
        const auto course = std::make_unique<Course>(told);
        course->run();
    }
    kxm::register_utf8_names();
    mem_ThreadId::Finalize();
    mem_Tracker::Finalize();
    tell_records((folder / "agreement").string(), told);
    tell_phases((folder / "agreement").string(), told);
    std::filesystem::remove_all(folder);

    if (argc > 2 && std::string(argv[2]) == "--renew") {
        std::ofstream(argv[1], std::ios::binary) << told.str();
        return 0;
    }
    if (told.str() != whole_file(argv[1])) {
        std::printf("This system tells:\n%s\nand %s:\n%s", told.str().c_str(), argv[1],
                    whole_file(argv[1]).c_str());
        return 1;
    }
    return 0;
}
