// memtrack: shows what a tracked run left in its files.
#include "history.h"
#include "tracking_files.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace memtrack;

constexpr int done = 0, damaged = 1, wrong_usage = 2;
constexpr std::size_t shown_without_all = 20;

constexpr char usage[] =
    "Usage: memtrack [summary | events | unreleased | phases] [--all] BASE\n\n"
    "BASE is the output name of a tracked run, with the folder; the name of one of its files\n"
    "serves as well.\n\n"
    "  summary     events, the peak and who made it, what was not released (the default)\n"
    "  events      every event, a line each\n"
    "  unreleased  what was not released, by phase and by block; all blocks with --all\n"
    "  phases      phase events of the files that a client's own phase buffers wrote\n\n"
    "Exit status: 0 done; 1 files are missing or damaged (what can be read is shown); 2 usage.\n";

struct Request {
    std::string_view command = "summary";
    std::string base;
    bool all = false;
};

const char* plural(std::uint64_t count) {
    return count == 1 ? "" : "s";
}

std::string phase_of(const Transaction& transaction, const PhaseTable& phases) {
    return transaction.has_stack() ? phases.path(transaction.stack) : "-";
}

void print_event(const Transaction& event, const PhaseTable& phases) {
    std::printf("%10" PRId32 "  thread %-3" PRId32 " %-7s  0x%012" PRIx64, event.id, event.thread,
                type_name(event.type), event.pointer);
    if (event.type == Type::realloc_) {
        std::printf(" from 0x%012" PRIx64, event.old_pointer);
    }
    if (event.size != no_size) {
        std::printf("  %" PRIu64 " byte%s", event.size, plural(event.size));
    }
    std::printf("  %s\n", phase_of(event, phases).c_str());
}

History replay(TransactionReader& reader) {
    History history;
    for (Transaction event; reader.next(event);) {
        history.add(event);
    }
    return history;
}

// A second pass, as far as the peak.
History replay_to_peak(const std::string& base, const Peak& peak) {
    Notes told_before;
    TransactionReader reader(base, told_before);
    History history;
    for (Transaction event; history.peak().bytes < peak.bytes && reader.next(event);) {
        history.add(event);
    }
    return history;
}

void print_by_phase(const History& history, const PhaseTable& phases) {
    struct Sum {
        std::uint64_t bytes = 0, blocks = 0;
    };
    std::map<std::string, Sum> sums;
    for (const auto& [address, block] : history.held()) {
        Sum& sum = sums[block.stack >= 0 ? phases.path(block.stack) : "no phase known"];
        sum.bytes += block.size;
        ++sum.blocks;
    }
    std::vector<std::pair<std::string, Sum>> order(sums.begin(), sums.end());
    std::stable_sort(order.begin(), order.end(),
                     [](const auto& a, const auto& b) { return a.second.bytes > b.second.bytes; });
    for (const auto& [path, sum] : order) {
        std::printf("%16" PRIu64 " byte%-1s in %8" PRIu64 " block%-1s  %s\n", sum.bytes,
                    plural(sum.bytes), sum.blocks, plural(sum.blocks), path.c_str());
    }
}

void print_blocks(const History& history, const PhaseTable& phases, bool all) {
    using Entry = std::pair<std::uint64_t, Block>;
    std::vector<Entry> blocks(history.held().begin(), history.held().end());
    const std::size_t shown = all ? blocks.size() : std::min(blocks.size(), shown_without_all);
    std::partial_sort(blocks.begin(), blocks.begin() + static_cast<std::ptrdiff_t>(shown),
                      blocks.end(), [](const Entry& a, const Entry& b) {
                          return a.second.size != b.second.size ? a.second.size > b.second.size
                                                                : a.second.id < b.second.id;
                      });
    std::printf("\n%s:\n", shown == blocks.size() ? "By block" : "The largest blocks");
    for (std::size_t i = 0; i < shown; ++i) {
        const auto& [address, block] = blocks[i];
        std::printf("%16" PRIu64 " byte%-1s at 0x%012" PRIx64 "  transaction %" PRId32
                    ", thread %" PRId32 ", %s\n",
                    block.size, plural(block.size), address, block.id, block.thread,
                    block.stack >= 0 ? phases.path(block.stack).c_str() : "no phase known");
    }
    if (shown < blocks.size()) {
        std::printf("... and %zu more (--all)\n", blocks.size() - shown);
    }
}

void print_held(const History& history) {
    std::printf("Not released: %" PRIu64 " byte%s in %zu block%s\n", history.held_bytes(),
                plural(history.held_bytes()), history.held().size(), plural(history.held().size()));
}

void print_unreleased(const History& history, const PhaseTable& phases, bool all) {
    print_held(history);
    if (!history.held().empty()) {
        std::printf("\nBy phase:\n");
        print_by_phase(history, phases);
        print_blocks(history, phases, all);
    }
}

void print_summary(const std::string& base, const History& history, const PhaseTable& phases,
                   std::int32_t files) {
    std::printf("%" PRIu64 " event%s in %" PRId32 " file%s, %zu thread%s, %zu phase%s\n",
                history.events(), plural(history.events()), files,
                plural(static_cast<std::uint64_t>(files)), history.threads(),
                plural(history.threads()), phases.size(), plural(phases.size()));
    for (std::int32_t i = 0; i < type_count; ++i) {
        const Type type = static_cast<Type>(i);
        if (history.events(type) != 0) {
            std::printf("  %-8s %12" PRIu64 "\n", type_name(type), history.events(type));
        }
    }
    std::printf("Asked for: %" PRIu64 " bytes; refused: %" PRIu64 " request%s\n",
                history.bytes_asked(), history.refused(), plural(history.refused()));
    const Peak& peak = history.peak();
    std::printf("Peak: %" PRIu64 " bytes in %zu blocks, at transaction %" PRId32 " (thread %" PRId32
                ", %s)\n",
                peak.bytes, peak.blocks, peak.transaction.id, peak.transaction.thread,
                phase_of(peak.transaction, phases).c_str());
    print_by_phase(replay_to_peak(base, peak), phases);
    if (history.unknown_releases() != 0) {
        std::printf("Released without a record of the block: %" PRIu64
                    " (made before tracking, or resized while it was stopped)\n",
                    history.unknown_releases());
    }
    if (history.lost_releases() != 0) {
        std::printf("Addresses given out again without a record of the release: %" PRIu64 "\n",
                    history.lost_releases());
    }
    print_held(history);
    print_by_phase(history, phases);
}

void print_phase_events(const std::string& base, Notes& notes) {
    constexpr int most_threads = 100000;
    int misses = 0;
    for (int thread = 0; thread < most_threads && misses < 64; ++thread) {
        const bool found = read_phase_events(base, thread, notes, [&](const PhaseEvent& event) {
            std::printf("thread %-3d before transaction %10" PRId32 "  %s %s\n", thread,
                        event.transaction, event.entering ? "enter" : "exit", event.name.c_str());
        });
        misses = found ? 0 : misses + 1;
    }
}

bool parse(int argc, char** argv, Request& request) {
    bool have_command = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        const bool is_command = argument == "summary" || argument == "events" ||
                                argument == "unreleased" || argument == "phases";
        if (argument == "--all") {
            request.all = true;
        } else if (is_command && !have_command && request.base.empty()) {
            request.command = argument;
            have_command = true;
        } else if (request.base.empty() && !argument.starts_with("--")) {
            request.base = base_name(std::string(argument));
        } else {
            return false;
        }
    }
    return !request.base.empty();
}

int show(const Request& request) {
    Notes notes;
    if (request.command == "phases") {
        print_phase_events(request.base, notes);
    } else {
        const PhaseTable phases(request.base, notes);
        TransactionReader reader(request.base, notes);
        if (request.command == "events") {
            for (Transaction event; reader.next(event);) {
                print_event(event, phases);
            }
        } else {
            const History history = replay(reader);
            if (request.command == "unreleased") {
                print_unreleased(history, phases, request.all);
            } else {
                print_summary(request.base, history, phases, reader.files());
            }
        }
    }
    if (std::fflush(stdout) != 0) {
        std::fprintf(stderr, "memtrack: cannot write the output\n");
        return damaged;
    }
    for (const std::string& note : notes) {
        std::fprintf(stderr, "memtrack: %s\n", note.c_str());
    }
    return notes.empty() ? done : damaged;
}

} // namespace

int main(int argc, char** argv) {
    const std::string_view first = argc > 1 ? argv[1] : "";
    if (first == "--help" || first == "-h") {
        std::fputs(usage, stdout);
        return done;
    }
    Request request;
    if (!parse(argc, argv, request)) {
        std::fputs(usage, stderr);
        return wrong_usage;
    }
    try {
        return show(request);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "memtrack: %s\n", error.what());
        return damaged;
    }
}
