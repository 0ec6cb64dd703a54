// memtrack leaks: what was not released, by phase and by block.
#include "lists.h"

#include <limits>

namespace memtrack {

namespace {

int leaks(const CommonOptions& options) {
    Output output(options.output, options.force);
    Problems problems;
    const std::size_t most = rows_shown(options, std::numeric_limits<std::size_t>::max());
    const auto readings = take_each(
        options, problems, [most](const std::string& base, Problems& found, ByteCounter* counter) {
            Holdings reading;
            reading.figures = take_figures(
                base, found, counter, [&](const History& history, const PhaseTable& table) {
                    reading.blocks = largest_blocks(base, history, table, most);
                });
            return reading;
        });
    const JobHoldings job = merge(readings, most);
    const Figures& all = job.all;
    if (options.json) {
        Json json(output);
        json.object();
        write_problems(json, problems);
        write_amount(json, "left", all.left);
        write_phase_list(json.key("phases"), options, all, &ShareFigures::left);
        write_blocks(json.key("blocks"), options, job.blocks);
        json.end();
    } else {
        write_incomplete(output, problems);
        output.print("Not released: %s\n", amount_text(all.left).c_str());
        if (all.left.blocks != 0) {
            output.print("\nBy phase:\n");
            write_phase_list(output, options, all, &ShareFigures::left, all.left.bytes);
            output.print("\nBy block:\n");
            write_blocks(output, options, job.blocks, all.left.blocks);
        }
    }
    return end_report(output, options, problems);
}

} // namespace

void add_leaks(CLI::App& parent, Run& run) {
    Command command(parent, "leaks", "What was not released, by phase and by block");
    const auto options = std::make_shared<CommonOptions>();
    options->add_all(command);
    command.runs(run, [options] { return leaks(*options); });
}

} // namespace memtrack
