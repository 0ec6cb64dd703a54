// memtrack diff: what changed between two runs, by phase, and a gate for continuous integration.
#include "gates.h"
#include "lists.h"
#include "metrics.h"

#include <algorithm>
#include <cinttypes>
#include <map>

namespace memtrack {

namespace {

struct DiffOptions : CommonOptions {
    std::vector<std::string> gates, to;
};

// One side of the comparison: a run, or a job's ranks.
struct Side {
    std::vector<std::string> bases;
    Figures figures; // merged

    std::string name() const {
        return bases.size() == 1 ? bases[0]
                                 : std::to_string(bases.size()) + " ranks, " + bases.front() +
                                       " to " + bases.back();
    }
};

struct Change {
    std::string path;
    ShareFigures before, after;

    std::uint64_t weight() const {
        const auto apart = [](std::uint64_t a, std::uint64_t b) { return a > b ? a - b : b - a; };
        return std::max(apart(before.at_peak.bytes, after.at_peak.bytes),
                        apart(before.left.bytes, after.left.bytes));
    }
    bool is_none() const {
        return before.at_peak == after.at_peak && before.left == after.left &&
               before.allocated == after.allocated;
    }
};

// Phases that changed, those with the largest change at the peak or left behind first.
std::vector<Change> changes(const Figures& before, const Figures& after) {
    std::map<std::string, Change> by_path;
    for (const PhaseFigures& phase : before.phases) {
        by_path[phase.path].before = phase;
    }
    for (const PhaseFigures& phase : after.phases) {
        by_path[phase.path].after = phase;
    }
    std::vector<Change> result;
    for (auto& [path, change] : by_path) {
        change.path = path;
        if (!change.is_none()) {
            result.push_back(change);
        }
    }
    std::stable_sort(result.begin(), result.end(),
                     [](const Change& a, const Change& b) { return a.weight() > b.weight(); });
    return result;
}

std::string signed_text(std::uint64_t before, std::uint64_t after, bool bytes) {
    if (before == after) {
        return "=";
    }
    const std::uint64_t apart = after > before ? after - before : before - after;
    return (after > before ? "+" : "-") + (bytes ? human_bytes(apart) : grouped(apart));
}

std::string signed_percent(std::uint64_t before, std::uint64_t after) {
    if (before == after || before == 0) {
        return before == after ? "" : "from 0";
    }
    return (after > before ? "+" : "-") +
           percent(after > before ? after - before : before - after, before);
}

void write_text(Output& output, const DiffOptions& options, const Side& a, const Side& b,
                const std::vector<Change>& phases) {
    output.print("A: %s\nB: %s\n\n%-20s %16s %16s %16s\n", a.name().c_str(), b.name().c_str(), "",
                 "A", "B", "change");
    for (const Metric& metric : metrics) {
        const std::uint64_t before = metric.get(a.figures), after = metric.get(b.figures);
        output.print("%-20s %16s %16s %16s  %s\n", metric.label,
                     metric_text(metric, before).c_str(), metric_text(metric, after).c_str(),
                     signed_text(before, after, metric.bytes).c_str(),
                     signed_percent(before, after).c_str());
    }
    output.print("\nBy phase, what changed:\n%16s %16s %16s\n", "at the peak", "not released",
                 "allocated");
    const std::size_t shown = rows_shown(options, phases.size());
    for (std::size_t i = 0; i < shown; ++i) {
        const Change& change = phases[i];
        const auto text = [&](Amount ShareFigures::*amount) {
            return signed_text((change.before.*amount).bytes, (change.after.*amount).bytes, true);
        };
        output.print("%16s %16s %16s  %s\n", text(&ShareFigures::at_peak).c_str(),
                     text(&ShareFigures::left).c_str(), text(&ShareFigures::allocated).c_str(),
                     change.path.c_str());
    }
    if (phases.empty()) {
        output.write("  nothing\n");
    }
    write_rest(output, shown, phases.size());
}

void write_json(Output& output, const DiffOptions& options, const Side& a, const Side& b,
                const std::vector<Change>& phases, const std::vector<std::string>& failed,
                const Problems& problems) {
    Json json(output);
    json.object();
    write_problems(json, problems);
    for (const auto& [name, side] : {std::pair("a", &a), std::pair("b", &b)}) {
        json.key(name).compact().array();
        for (const std::string& base : side->bases) {
            json.value(base);
        }
        json.end();
    }
    json.key("figures").object();
    for (const Metric& metric : metrics) {
        json.key(metric.name).compact().object();
        json.member("a", metric.get(a.figures)).member("b", metric.get(b.figures)).end();
    }
    json.end().key("phases").array();
    for (std::size_t i = 0; i < rows_shown(options, phases.size()); ++i) {
        const Change& change = phases[i];
        json.compact().object().member("phase", change.path);
        for (const auto& [side, share] :
             {std::pair("a", &change.before), std::pair("b", &change.after)}) {
            json.key(side).object();
            write_amount(json, "at_peak", share->at_peak);
            write_amount(json, "left", share->left);
            write_amount(json, "allocated", share->allocated);
            json.end();
        }
        json.end();
    }
    json.end().key("failed_gates").compact().array();
    for (const std::string& gate : failed) {
        json.value(gate);
    }
    json.end().end();
}

int diff(DiffOptions options) {
    if (options.to.empty() && options.bases.size() != 2) {
        throw UsageError(
            "diff compares two runs, A and B, or the ranks of two jobs: A... --to B...");
    }
    const std::vector<Gate> gates(options.gates.begin(), options.gates.end());
    const std::size_t first_side = options.to.empty() ? 1 : options.bases.size();
    const std::vector<std::string> to = bases_of(options.to);
    options.bases.insert(options.bases.end(), to.begin(), to.end());
    Output output(options.output, options.force);
    Problems problems;
    const std::vector<Figures> runs = take_each(
        options, problems, [](const std::string& base, Problems& found, ByteCounter* counter) {
            return take_figures(base, found, counter);
        });
    const auto side = [&](std::size_t from, std::size_t until) {
        const auto begin = static_cast<std::ptrdiff_t>(from),
                   end = static_cast<std::ptrdiff_t>(until);
        return Side{{options.bases.begin() + begin, options.bases.begin() + end},
                    merge({runs.begin() + begin, runs.begin() + end})};
    };
    const Side a = side(0, first_side), b = side(first_side, runs.size());
    std::vector<std::string> failed;
    for (const Gate& gate : gates) {
        if (gate.fails(a.figures, b.figures)) {
            failed.push_back(gate.text());
        }
    }
    const std::vector<Change> phases = changes(a.figures, b.figures);
    if (options.json) {
        write_json(output, options, a, b, phases, failed, problems);
    } else {
        write_incomplete(output, problems);
        write_text(output, options, a, b, phases);
    }
    output.finish(options.quiet);
    for (const std::string& gate : failed) {
        std::fprintf(stderr, "memtrack: --fail-if %s: past it: %s\n", gate.c_str(),
                     b.name().c_str());
    }
    // Figures of damaged files prove nothing, neither that a limit is kept nor that it is passed.
    const int status = tell_problems(problems);
    return status != done ? status : failed.empty() ? done : gate_failed;
}

} // namespace

void add_diff(CLI::App& parent, Run& run) {
    Command command(parent, "diff", "What changed from the first run to the second, by phase");
    const auto options = std::make_shared<DiffOptions>();
    options->add_bases(command);
    command
        .option("--to", options->to,
                "The ranks of the second job; all BASEs before are the first one's, and figures "
                "are sums over ranks. Without it BASE is given twice: first run, second run")
        .takes(1, 0);
    command
        .option(
            "--fail-if", options->gates,
            "FIGURE, FIGURE+5% or FIGURE+10MiB: exit status 3 if the second run has more by more "
            "than that; may be repeated. Figures: " +
                Gate::names())
        .repeated();
    options->add_rows(command);
    options->add_json(command);
    options->add_output(command);
    command.runs(run, [options] { return diff(*options); });
}

} // namespace memtrack
