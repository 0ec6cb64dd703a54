// memtrack replay: repeats recordings with the library's back ends and with other allocators, and puts side by
// side what each took.
//
// A recording has one order of its events, which its threads together made. It is repeated in this order on one
// thread: this tells memory truly, and time without the cost or the gain of several threads at once.
#include "lists.h"
#include "replay/runner.h"

#include "platform/process.h"

#include <algorithm>
#include <cinttypes>

namespace memtrack {
namespace {

using replay::Candidate;
using replay::Recording;

struct ReplayOptions : CommonOptions {
    std::vector<std::string> back_ends, libraries;
    unsigned repetitions = 5;
    bool untouched = false;
};

// What a candidate took: medians, of several ranks their sum.
struct Row {
    const Candidate& candidate;
    std::vector<replay::Run> ranks; // medians of each
    replay::Run sum;
    std::string failure;

    bool good() const { return failure.empty(); }
    double fragmentation() const { return ratio(sum.footprint_then); }
    double resident_ratio() const { return ratio(sum.resident_then); }

private:
    double ratio(std::uint64_t bytes) const {
        return static_cast<double>(bytes) / static_cast<double>(sum.live_then);
    }
};

// Of each figure by itself; in an even number the lower of the middle two.
replay::Run medians(const std::vector<replay::Run>& runs) {
    const auto median = [&](std::uint64_t replay::Run::*figure) {
        std::vector<std::uint64_t> values;
        values.reserve(runs.size());
        for (const replay::Run& run : runs) {
            values.push_back(run.*figure);
        }
        const auto middle = values.begin() + static_cast<std::ptrdiff_t>((values.size() - 1) / 2);
        std::nth_element(values.begin(), middle, values.end());
        return *middle;
    };
    replay::Run result;
    for (const auto figure : replay::Run::figures) {
        result.*figure = median(figure);
    }
    return result;
}

// All repetitions: the candidates take turns, so that a change of the machine's speed meets them alike.
std::vector<Row> measure(const ReplayOptions& options, const std::vector<Recording>& recordings,
                         const std::vector<Candidate>& candidates) {
    std::vector<Row> rows;
    rows.reserve(candidates.size());
    for (const Candidate& candidate : candidates) {
        rows.push_back({candidate, {}, {}, {}});
    }
    std::uint64_t bytes = 0;
    for (const Recording& recording : recordings) {
        bytes += transaction_bytes(recording.base);
    }
    Progress progress(bytes * (options.repetitions * candidates.size() + 1), options.quiet);
    replay::Runner runner(!options.untouched);
    for (const Recording& recording : recordings) {
        runner.repeat(recording, candidates.front(), &progress); // warms the machine
        std::vector<std::vector<replay::Run>> runs(candidates.size());
        for (unsigned i = 0; i < options.repetitions; ++i) {
            for (std::size_t which = 0; which < candidates.size(); ++which) {
                Row& row = rows[which];
                if (row.good()) {
                    const auto result = runner.repeat(recording, row.candidate, &progress);
                    runs[which].push_back(result.run);
                    row.failure = result.failure;
                }
            }
        }
        for (std::size_t which = 0; which < candidates.size(); ++which) {
            if (rows[which].good()) {
                rows[which].ranks.push_back(medians(runs[which]));
                for (const auto figure : replay::Run::figures) {
                    rows[which].sum.*figure += rows[which].ranks.back().*figure;
                }
            }
        }
    }
    return rows;
}

std::vector<Candidate> candidates_of(const ReplayOptions& options) {
    std::vector<std::string> names = options.back_ends;
    if (names.empty()) {
        names = {"crt", "heap", "heap:tiny", "aligned", "guarded"};
    }
    std::vector<Candidate> candidates;
    candidates.reserve(names.size() + options.libraries.size());
    for (const std::string& name : names) {
        candidates.push_back(replay::back_end(name));
    }
    for (const std::string& library : options.libraries) {
        candidates.push_back(replay::preloaded(library));
    }
    return candidates;
}

void write_recording(Output& output, const Recording& recording) {
    output.print(
        "%s: %s event%s of %s thread%s, replayed on one thread in the order of their ids; %s held "
        "at the peak\n",
        recording.base.c_str(), grouped(recording.events).c_str(), plural(recording.events),
        grouped(recording.threads).c_str(), plural(recording.threads),
        human_bytes(recording.peak.bytes).c_str());
    const auto line = [&](std::uint64_t count, const char* one, const char* many) {
        if (count != 0) {
            output.print("  %s %s\n", grouped(count).c_str(), count == 1 ? one : many);
        }
    };
    line(recording.refused, "request was refused when it was recorded, and is left out",
         "requests were refused when they were recorded, and are left out");
    line(recording.unknown, "release of an address without a record of the block is left out",
         "releases of addresses without a record of the block are left out");
    line(recording.lost, "block is released where its address was given out again",
         "blocks are released where their addresses were given out again");
}

void write_text(Output& output, const ReplayOptions& options,
                const std::vector<Recording>& recordings, const std::vector<Row>& rows,
                const Problems& problems) {
    write_incomplete(output, problems);
    std::uint64_t ops = 0;
    for (const Recording& recording : recordings) {
        write_recording(output, recording);
        ops += recording.ops;
    }
    output.print("Each replay in a new process; medians of %u; pages of blocks %s%s\n\n",
                 options.repetitions, options.untouched ? "not touched" : "touched",
                 recordings.size() > 1 ? "; sums over the ranks" : "");
    std::size_t width = 10;
    for (const Row& row : rows) {
        width = std::max(width, row.candidate.name.size());
    }
    const int name_width = static_cast<int>(width);
    output.print("%-*s %12s %9s %14s %14s %13s %14s %9s\n", name_width, "", "time ms", "ns/event",
                 "footprint", "resident", "fragmentation", "resident/held", "refused");
    for (const Row& row : rows) {
        if (!row.good()) {
            output.print("%-*s %s\n", name_width, row.candidate.name.c_str(), row.failure.c_str());
            continue;
        }
        const double nanoseconds = static_cast<double>(row.sum.nanoseconds);
        output.print("%-*s %12.3f %9.1f %14s %14s", name_width, row.candidate.name.c_str(),
                     nanoseconds / 1e6, ops != 0 ? nanoseconds / static_cast<double>(ops) : 0.0,
                     human_bytes(row.sum.footprint).c_str(), human_bytes(row.sum.resident).c_str());
        if (row.sum.live_then != 0) {
            output.print(" %13.3f %14.3f", row.fragmentation(), row.resident_ratio());
        } else {
            output.print(" %13s %14s", "-", "-");
        }
        output.print(" %9s\n", grouped(row.sum.refused).c_str());
    }
    output.print("\nFootprint: most private bytes that the process took for it; resident: most "
                 "bytes in main "
                 "memory.\nFragmentation: footprint over bytes held, at the recording's peak.\n");
    for (const Row& row : rows) {
        if (row.good() && row.candidate.is_heap) {
            output.print("%s: its own highest footprint, which a limit has to be above: %s bytes\n",
                         row.candidate.name.c_str(), grouped(row.sum.heap_high_water).c_str());
        }
        if (row.good() && row.sum.refused != 0) {
            output.print("%s: %s request%s refused, and the replay went on without\n",
                         row.candidate.name.c_str(), grouped(row.sum.refused).c_str(),
                         row.sum.refused == 1 ? " was" : "s were");
        }
    }
}

void write_run(Json& json, const replay::Run& run) {
    json.member("seconds", static_cast<double>(run.nanoseconds) / 1e9);
    json.member("footprint_bytes", run.footprint).member("resident_bytes", run.resident);
    json.member("held_bytes", run.live).member("refused", run.refused);
    json.key("at_peak").compact().object();
    json.member("held_bytes", run.live_then).member("footprint_bytes", run.footprint_then);
    json.member("resident_bytes", run.resident_then).end();
}

void write_json(Output& output, const ReplayOptions& options,
                const std::vector<Recording>& recordings, const std::vector<Row>& rows,
                const Problems& problems) {
    Json json(output);
    json.object().member("repetitions", options.repetitions).member("touched", !options.untouched);
    json.key("recordings").array();
    for (const Recording& recording : recordings) {
        json.object().member("base", recording.base).member("events", recording.events);
        json.member("replayed", recording.ops).member("threads", recording.threads);
        json.member("peak_bytes", recording.peak.bytes).member("refused", recording.refused);
        json.member("unknown_releases", recording.unknown)
            .member("lost_releases", recording.lost)
            .end();
    }
    json.end().key("allocators").array();
    for (const Row& row : rows) {
        json.object().member("name", row.candidate.name);
        if (!row.good()) {
            json.member("failure", row.failure).end();
            continue;
        }
        write_run(json, row.sum);
        if (row.sum.live_then != 0) {
            json.member("fragmentation", row.fragmentation());
        }
        if (row.candidate.is_heap) {
            json.member("heap_high_water_bytes", row.sum.heap_high_water);
        }
        if (row.ranks.size() > 1) {
            json.key("ranks").array();
            for (const replay::Run& run : row.ranks) {
                json.object();
                write_run(json, run);
                json.end();
            }
            json.end();
        }
        json.end();
    }
    json.end();
    write_problems(json, problems);
    json.end();
}

int run_replay(const ReplayOptions& options) {
    const std::vector<Candidate> candidates = candidates_of(options);
    Output output(options.output, options.force);
    Problems problems;
    const std::vector<Recording> recordings = take_each(options, problems, replay::survey);
    const std::vector<Row> rows = measure(options, recordings, candidates);
    if (options.json) {
        write_json(output, options, recordings, rows, problems);
    } else {
        write_text(output, options, recordings, rows, problems);
    }
    output.finish(options.quiet);
    const bool all_good =
        std::all_of(rows.begin(), rows.end(), [](const Row& row) { return row.good(); });
    return std::max(tell_problems(problems), all_good ? done : damaged);
}

} // namespace

void add_replay(CLI::App& parent, Run& run) {
    const auto options = std::make_shared<ReplayOptions>();
    Command command(
        parent, "replay",
        "Repeat a run with other back ends, options and allocators, and compare what each takes");
    options->add_bases(command);
    command
        .option("--on", options->back_ends,
                "Back end: crt, guarded, aligned, or heap with options behind a colon:\n"
                "heap:tiny,granularity=SIZE,trim=SIZE,map=SIZE,limit=SIZE, where SIZE is\n"
                "64KiB, 64MiB, 2GiB or never. May be repeated; crt, heap, heap:tiny, aligned and\n"
                "guarded if not given")
        .of("BACKEND")
        .repeated();
    command
        .option("--with", options->libraries,
                "Another allocator besides, by the name of its shared library (Linux).\n"
                "May be repeated")
        .of("LIBRARY")
        .repeated();
    command.option("-r,--repetitions", options->repetitions, "Replays with each")
        .shows_default()
        .between(1, 1000);
    command.flag("--no-touch", options->untouched,
                 "Do not write to the blocks: resident bytes then tell little");
    options->add_json(command);
    options->add_output(command);
    command.footer("The threads' events are replayed on one thread, in the order of their ids.");
    command.runs(run, [options] { return run_replay(*options); });
}

} // namespace memtrack
