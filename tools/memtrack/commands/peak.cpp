// memtrack peak: what was held when most was held. The figures come with one pass; a second one, as far as the
// peak, has the blocks themselves.
#include "lists.h"

#include <bit>
#include <cinttypes>
#include <limits>

namespace memtrack {

namespace {

// The history behind event `number`.
void replay_as_far_as(History& history, EventReader& reader, std::uint64_t number) {
    Watcher nobody;
    for (Batch batch; reader.next(batch);) {
        const std::uint64_t wanted = number - batch.first + 1;
        if (wanted < batch.events.size()) {
            batch.events = batch.events.first(static_cast<std::size_t>(wanted));
        }
        history.replay(batch, nobody);
        if (wanted <= batch.events.size()) {
            return;
        }
    }
}

Holdings read_peak(const std::string& base, Problems& problems, ByteCounter* counter,
                   std::size_t most) {
    Holdings reading;
    reading.figures = take_figures(base, problems, counter);
    if (reading.figures.peak.blocks != 0) {
        Problems told_before;
        EventReader reader(base, told_before);
        const PhaseTable table(base, told_before);
        History history;
        replay_as_far_as(history, reader, reading.figures.peak_event.number);
        reading.blocks = largest_blocks(base, history, table, most);
        history.held().for_each([&](const Block& block) {
            reading.sizes.requests[static_cast<std::size_t>(std::bit_width(block.size))].add(
                block.size);
        });
    }
    return reading;
}

void write_threads(Output& output, const Figures& all) {
    output.print("\nBy thread:\n");
    for (const ThreadFigures& thread : all.threads) {
        if (thread.at_peak.blocks != 0) {
            output.print("  %12s %8s  thread %" PRId32 "\n",
                         human_bytes(thread.at_peak.bytes).c_str(),
                         percent(thread.at_peak.bytes, all.peak.bytes).c_str(), thread.thread);
        }
    }
}

void write_json(Output& output, const CommonOptions& options, const JobHoldings& job,
                const Problems& problems) {
    const Figures& all = job.all;
    Json json(output);
    json.object();
    write_problems(json, problems);
    write_peak(json, options, all);
    write_phase_list(json.key("phases"), options, all, &ShareFigures::at_peak);
    json.key("threads").array();
    for (const ThreadFigures& thread : all.threads) {
        json.compact().object().member("thread", thread.thread);
        json.member("bytes", thread.at_peak.bytes).member("blocks", thread.at_peak.blocks).end();
    }
    json.end();
    write_sizes(json.key("sizes"), job.sizes);
    write_blocks(json.key("blocks"), options, job.blocks);
    json.end();
}

int peak(const CommonOptions& options) {
    Output output(options.output, options.force);
    Problems problems;
    const std::size_t most = rows_shown(options, std::numeric_limits<std::size_t>::max());
    const auto readings = take_each(
        options, problems, [most](const std::string& base, Problems& found, ByteCounter* counter) {
            return read_peak(base, found, counter, most);
        });
    const JobHoldings job = merge(readings, most);
    const Figures& all = job.all;
    if (options.json) {
        write_json(output, options, job, problems);
    } else {
        write_incomplete(output, problems);
        write_peak_line(output, job.ranks, all);
        if (all.peak.blocks != 0) {
            output.print("\nBy phase:\n");
            write_phase_list(output, options, all, &ShareFigures::at_peak, all.peak.bytes);
            write_threads(output, all);
            output.print("\nBy size, in bytes:\n");
            write_sizes(output, job.sizes);
            output.print("\nBy block:\n");
            write_blocks(output, options, job.blocks, all.peak.blocks);
        }
    }
    return end_report(output, options, problems);
}

} // namespace

void add_peak(CLI::App& parent, Run& run) {
    Command command(parent, "peak",
                    "What was held when most was held: by phase, thread, size and block");
    const auto options = std::make_shared<CommonOptions>();
    options->add_all(command);
    command.runs(run, [options] { return peak(*options); });
}

} // namespace memtrack
