// memtrack report: the whole of a run, or of a job's ranks, on a page.
#include "lists.h"
#include "metrics.h"

#include <algorithm>
#include <cinttypes>

namespace memtrack {

namespace {

// --- as text ---

void write_heading(Output& output, const std::vector<Figures>& ranks, const Figures& all) {
    if (ranks.size() == 1) {
        output.print("%s: ", ranks[0].base.c_str());
    } else {
        output.print("%zu ranks: ", ranks.size());
    }
    output.print("%s event%s in %" PRId32 " file%s, %zu thread%s, %zu phase%s\n",
                 grouped(all.events).c_str(), plural(all.events), all.files,
                 plural(static_cast<std::uint64_t>(all.files)), all.threads.size(),
                 plural(all.threads.size()), all.phases.size(), plural(all.phases.size()));
}

void write_types(Output& output, const Figures& all) {
    for (std::size_t i = 0; i < type_count; ++i) {
        if (all.by_type[i] != 0) {
            output.print("  %-8s %16s\n", type_name(static_cast<Type>(i)),
                         grouped(all.by_type[i]).c_str());
        }
    }
}

void write_totals(Output& output, const Figures& all) {
    output.print("Allocated: %s over the run\n", amount_text(all.allocated).c_str());
    output.print("Temporary: %s of these blocks (%s) were freed before anything else was "
                 "allocated\n",
                 grouped(all.temporary).c_str(),
                 percent(all.temporary, all.allocated.blocks).c_str());
    output.print("Failed: %s request%s\n", grouped(all.failed).c_str(), plural(all.failed));
    if (all.unknown_releases != 0) {
        output.print("Released without being held: %s\n", grouped(all.unknown_releases).c_str());
    }
    if (all.lost_releases != 0) {
        output.print("Addresses given out again while held: %s\n",
                     grouped(all.lost_releases).c_str());
    }
}

void write_threads(Output& output, const CommonOptions& options, const Figures& all) {
    std::vector<const ThreadFigures*> order;
    for (const ThreadFigures& thread : all.threads) {
        order.push_back(&thread);
    }
    std::stable_sort(order.begin(), order.end(), [](const auto* a, const auto* b) {
        return a->allocated.bytes > b->allocated.bytes;
    });
    output.print(
        "\nBy thread:\n  thread       events    allocated   temporary  failed      at peak  not "
        "released  frees others' blocks\n");
    const std::size_t shown = rows_shown(options, order.size());
    for (std::size_t i = 0; i < shown; ++i) {
        const ThreadFigures& thread = *order[i];
        output.print("  %6" PRId32 " %12s %12s %11s %7s %12s %13s %21s\n", thread.thread,
                     grouped(thread.events).c_str(), human_bytes(thread.allocated.bytes).c_str(),
                     grouped(thread.temporary).c_str(), grouped(thread.failed).c_str(),
                     human_bytes(thread.at_peak.bytes).c_str(),
                     human_bytes(thread.left.bytes).c_str(),
                     grouped(thread.released_foreign).c_str());
    }
    write_rest(output, shown, order.size());
}

void write_ranks(Output& output, const std::vector<Figures>& ranks) {
    output.print("\nOver %zu ranks:%14s%17s%17s  of rank\n", ranks.size(), "minimum", "mean",
                 "maximum");
    for (const Metric& metric : metrics) {
        const Spread range = spread(ranks, metric.get);
        output.print("  %-20s %12s %16s %16s  %s\n", metric.label,
                     metric_text(metric, range.low).c_str(),
                     metric_text(metric, static_cast<std::uint64_t>(range.mean)).c_str(),
                     metric_text(metric, range.high).c_str(), ranks[range.high_rank].base.c_str());
    }
}

void write_text(Output& output, const CommonOptions& options, const std::vector<Figures>& ranks,
                const Figures& all, const Problems& problems) {
    write_incomplete(output, problems);
    write_heading(output, ranks, all);
    write_types(output, all);
    write_totals(output, all);
    output.print("\n");
    write_peak_line(output, ranks, all);
    write_phase_list(output, options, all, &ShareFigures::at_peak, all.peak.bytes);
    output.print("\nNot released: %s\n", amount_text(all.left).c_str());
    write_phase_list(output, options, all, &ShareFigures::left, all.left.bytes);
    output.print("\nSizes of requests, in bytes:\n");
    write_sizes(output, all.sizes);
    write_threads(output, options, all);
    if (ranks.size() > 1) {
        write_ranks(output, ranks);
    }
}

// --- as JSON ---

void write_share(Json& json, const ShareFigures& share) {
    json.member("events", share.events);
    write_amount(json, "allocated", share.allocated);
    json.member("temporary", share.temporary).member("failed", share.failed);
    write_amount(json, "at_peak", share.at_peak);
    write_amount(json, "left", share.left);
    json.member("high_bytes", share.high);
}

void write_figures(Json& json, const CommonOptions& options, const Figures& all) {
    json.member("files", all.files).member("events", all.events);
    json.key("events_by_type").object();
    for (std::size_t i = 0; i < type_count; ++i) {
        json.member(type_name(static_cast<Type>(i)), all.by_type[i]);
    }
    json.end();
    write_amount(json, "allocated", all.allocated);
    json.member("temporary", all.temporary).member("failed", all.failed);
    json.member("unknown_releases", all.unknown_releases);
    json.member("lost_releases", all.lost_releases);
    write_peak(json, options, all);
    write_amount(json, "left", all.left);
    write_sizes(json.key("sizes"), all.sizes);
    json.key("phases").array();
    for (const PhaseFigures& phase : all.phases) {
        json.compact().object().member("phase", phase.path);
        write_share(json, phase);
        json.end();
    }
    json.end().key("threads").array();
    for (const ThreadFigures& thread : all.threads) {
        json.compact().object().member("thread", thread.thread);
        write_share(json, thread);
        json.member("released", thread.released);
        json.member("released_foreign", thread.released_foreign).end();
    }
    json.end();
}

void write_json(Output& output, const CommonOptions& options, const std::vector<Figures>& ranks,
                const Figures& all, const Problems& problems) {
    Json json(output);
    json.object();
    write_problems(json, problems);
    write_figures(json, options, all);
    json.key("ranks").array();
    for (const Figures& rank : ranks) {
        json.compact().object().member("base", rank.base).member("complete", rank.complete);
        for (const Metric& metric : metrics) {
            json.member(metric.name, metric.get(rank));
        }
        json.end();
    }
    json.end().key("over_ranks").object();
    for (const Metric& metric : metrics) {
        const Spread range = spread(ranks, metric.get);
        json.key(metric.name).compact().object().member("minimum", range.low);
        json.member("mean", range.mean).member("maximum", range.high);
        json.member("minimum_of", ranks[range.low_rank].base);
        json.member("maximum_of", ranks[range.high_rank].base).end();
    }
    json.end().end();
}

int report(const CommonOptions& options) {
    Output output(options.output, options.force);
    Problems problems;
    const std::vector<Figures> ranks = take_each(
        options, problems, [](const std::string& base, Problems& found, ByteCounter* counter) {
            return take_figures(base, found, counter);
        });
    const Figures all = merge(ranks);
    if (options.json) {
        write_json(output, options, ranks, all, problems);
    } else {
        write_text(output, options, ranks, all, problems);
    }
    return end_report(output, options, problems);
}

} // namespace

void add_report(CLI::App& parent, Run& run) {
    Command command(
        parent, "report",
        "Events, the peak and what held it, what was not released, sizes, threads, ranks");
    const auto options = std::make_shared<CommonOptions>();
    options->add_all(command);
    command.runs(run, [options] { return report(*options); });
}

} // namespace memtrack
