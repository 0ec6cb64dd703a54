// memtrack-replay: does to the library what memtrack tells it that a recording did (ops.h), and tells how long
// that took and what memory the process took for it. One process replays once, with one back end, which the
// environment chooses as for any program.
//
//   memtrack-replay SLOTS [NAME=VALUE...]
//   memtrack-replay --version | --help
//
// Another allocator is preloaded and serves the library's C runtime back end: all are called in the same way.
// What this program needs for itself is mapped from the system before anything is measured, and touched, so
// that it counts in no figure; the clock stands while it waits for operations and while it looks at the
// process's figures.
#include "KXMBasMem.h"
#include "ops.h"
#include "platform/self.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

using namespace memtrack;
using replay::Kind;
using replay::Op;

constexpr std::size_t page = 4096;
constexpr std::uint32_t ops_between_looks = 8192;

struct Slot {
    void* block;
    std::uint64_t size;
};

struct Options {
    std::uint64_t slots = 0;
    std::uint64_t trim = 0, granularity = 0, map = 0, limit = 0;
    bool set_trim = false, set_granularity = false, set_map = false;
    bool tiny = false, lock = false, touch = true;
    /// The aligned back end's interface can neither resize nor release what its calloc gives, and its
    /// resize reads past the old block's end.
    bool by_hand = false;
};

struct Figures {
    std::uint64_t refused = 0, live = 0, peak_live = 0;
    std::uint64_t peak_private = 0;
    // At the recording's peak:
    std::uint64_t live_then = 0, private_then = 0, resident_then = 0;
};

class Replay {
public:
    Replay(const Options& options, Slot* slots) : options_(options), slots_(slots) {}

    // Nanoseconds.
    std::uint64_t run(const Op* ops, std::uint32_t count);
    void look() { figures_.peak_private = std::max(figures_.peak_private, private_bytes()); }
    const Figures& figures() const { return figures_; }

private:
    static std::uint64_t private_bytes() { return 1024 * mem_FootprintFromResources(); }

    void touch(void* block, std::uint64_t size) const {
        if (options_.touch && size != 0) {
            auto* const bytes = static_cast<volatile char*>(block);
            for (std::uint64_t i = 0; i < size; i += page) {
                bytes[i] = 1;
            }
            bytes[size - 1] = 1;
        }
    }

    void put(Slot& slot, void* block, std::uint64_t size) {
        if (block == nullptr) {
            ++figures_.refused;
            return;
        }
        figures_.live += size - slot.size;
        figures_.peak_live = std::max(figures_.peak_live, figures_.live);
        slot = {block, size};
        touch(block, size);
    }

    void release(Slot& slot) {
        if (slot.block != nullptr) { // it was refused
            mem_Free(slot.block);
            figures_.live -= slot.size;
            slot = {};
        }
    }

    void clear(Slot& slot, std::uint64_t size) {
        if (size ==
            0) { // the guarded back end faults; the recording may have had 0 elements of some size
            return put(slot, mem_Malloc(0), 0);
        }
        if (!options_.by_hand) {
            return put(slot, mem_Calloc(1, size), size);
        }
        void* const block = mem_Malloc(size);
        if (block != nullptr) {
            std::memset(block, 0, size);
        }
        put(slot, block, size);
    }

    void resize(Slot& slot, std::uint64_t size) {
        if (size == 0) { // back ends differ in what that means; the recording's gave a block
            release(slot);
            return put(slot, mem_Malloc(0), 0);
        }
        if (!options_.by_hand || slot.block == nullptr) {
            return put(slot, mem_Realloc(slot.block, size), size);
        }
        void* const block = mem_Malloc(size);
        if (block != nullptr) {
            std::memcpy(block, slot.block, std::min(size, slot.size));
            mem_Free(slot.block);
        }
        put(slot, block, size);
    }

    void look_at_peak() {
        figures_.live_then = figures_.live;
        figures_.private_then = private_bytes();
        figures_.resident_then = platform::resident_bytes();
    }

    void one(const Op& op) {
        Slot& slot = slots_[op.slot];
        switch (op.kind) {
        case Kind::allocate:
            return put(slot, mem_Malloc(op.size), op.size);
        case Kind::clear:
            return clear(slot, op.size);
        case Kind::resize:
            return resize(slot, op.size);
        case Kind::release:
            return release(slot);
        case Kind::peak:
            return;
        }
    }

    const Options& options_;
    Slot* const slots_;
    Figures figures_;
};

std::uint64_t Replay::run(const Op* ops, std::uint32_t count) {
    using Clock = std::chrono::steady_clock;
    std::chrono::nanoseconds took{};
    for (std::uint32_t next = 0; next < count;) {
        const std::uint32_t end = std::min(next + ops_between_looks, count);
        const auto start = Clock::now();
        while (next < end && ops[next].kind != Kind::peak) {
            one(ops[next++]);
        }
        took += Clock::now() - start;
        look();
        if (next < end) {
            look_at_peak();
            ++next;
        }
    }
    return static_cast<std::uint64_t>(took.count());
}

[[noreturn]] void end(int status, const char* text) {
    std::fprintf(stderr, "memtrack-replay: %s\n", text);
    std::exit(status);
}

// Takes the 123 of "name=123"; false if it is another name.
bool takes(std::string_view argument, std::string_view name, std::uint64_t& value) {
    if (!argument.starts_with(name)) {
        return false;
    }
    value = std::strtoull(argument.data() + name.size(), nullptr, 10);
    return true;
}

// What a person may ask of it; ends the process.
void answer(std::string_view question) {
    if (question == "-V" || question == "--version") {
        std::printf("memtrack-replay %s\n", KXMBasMemVersion());
    } else if (question == "-h" || question == "--help") {
        std::printf(
            "Repeats a recording's requests in a process of its own; memtrack replay starts it.\n"
            "Usage: memtrack-replay SLOTS [NAME=VALUE...]\n\n"
            "Options:\n"
            "  -h,--help                   Print this help message and exit\n"
            "  -V,--version                Print the version of the library that it replays "
            "with\n");
    } else {
        return;
    }
    std::exit(std::fflush(stdout) == 0 ? 0 : 1);
}

Options options_of(int argc, char** argv) {
    Options options;
    options.slots = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 0;
    for (int i = 2; i < argc; ++i) {
        const std::string_view argument = argv[i];
        options.tiny |= argument == "tiny";
        options.lock |= argument == "lock";
        options.by_hand |= argument == "aligned";
        options.touch &= argument != "untouched";
        options.set_trim |= takes(argument, "trim=", options.trim);
        options.set_map |= takes(argument, "map=", options.map);
        options.set_granularity |= takes(argument, "granularity=", options.granularity);
        takes(argument, "limit=", options.limit);
    }
    return options;
}

void set_up_library(const Options& options) {
    if (options.set_trim) {
        mem_Mallopt(-1, options.trim);
    }
    if (options.set_granularity && mem_Mallopt(-2, options.granularity) == 0) {
        end(replay::not_possible,
            "the granularity is not taken: it has to be a power of two, a page at least");
    }
    if (options.set_map) {
        mem_Mallopt(-3, options.map);
    }
    mem_Free(mem_Malloc(256)); // the first segment must be had before the limit
    if (options.limit != 0) {
        mem_Mallopt(-5, options.limit);
    }
    if (options.tiny) {
        mem_TBAllocator(1);
        mem_TBThreadLock(options.lock);
    }
}

Op ops[replay::most_ops];

std::uint64_t replay_all(Replay& replay) {
    std::uint64_t nanoseconds = 0;
    for (;;) {
        std::uint32_t count = 0;
        if (!platform::write_output(&replay::more, 1) ||
            !platform::read_input(&count, sizeof count) || count > replay::most_ops ||
            !platform::read_input(ops, count * sizeof(Op))) {
            end(replay::not_understood, "this program is started by memtrack replay");
        }
        if (count == 0) {
            return nanoseconds;
        }
        nanoseconds += replay.run(ops, count);
    }
}

} // namespace

int main(int argc, char** argv) {
    answer(argc > 1 ? argv[1] : "");
    platform::use_binary_streams();
    const Options options = options_of(argc, argv);
    set_up_library(options);
    const std::uint64_t own_bytes = (options.slots * sizeof(Slot) / page + 1) * page;
    auto* const slots = static_cast<Slot*>(platform::map_memory(own_bytes));
    if (slots == nullptr) {
        end(replay::not_possible, "no memory for the table of blocks");
    }
    // Touched, so that it is not what grows later. Zeros could be taken for what is there already.
    std::memset(static_cast<void*>(slots), 1, own_bytes);
    std::memset(static_cast<void*>(ops), 1, sizeof ops);
    std::memset(static_cast<void*>(slots), 0, own_bytes);
    platform::forget_peak_resident();

    Replay replay(options, slots);
    replay.look();
    const std::uint64_t nanoseconds = replay_all(replay);
    const std::uint64_t resident = platform::peak_resident_bytes();
    const Figures& figures = replay.figures();
    char text[1024];
    const int length = std::snprintf(
        text, sizeof text,
        "nanoseconds %" PRIu64 "\nrefused %" PRIu64 "\npeak_live %" PRIu64 "\nlive_then %" PRIu64
        "\nprivate_then %" PRIu64 "\nresident_then %" PRIu64 "\npeak_private %" PRIu64
        "\npeak_resident %" PRIu64 "\nown %" PRIu64 "\nheap_high_water %zu\nmalloc %.500s\n",
        nanoseconds, figures.refused, figures.peak_live, figures.live_then, figures.private_then,
        figures.resident_then, figures.peak_private, resident, own_bytes,
        mem_usingDL() != 0 ? mem_MaxFootprint() : std::size_t{0}, platform::home_of_malloc());
    const bool told = platform::write_output(text, static_cast<std::size_t>(length));
    std::_Exit(told ? 0 : replay::not_understood); // what is still held is not looked at
}
