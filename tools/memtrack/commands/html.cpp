// memtrack html: a page of its own that shows a run, or a job's ranks, in a browser.
#include "../html/page_template.h"
#include "../lists.h"
#include "../page_data.h"
#include "../platform/terminal.h"

namespace memtrack {

namespace {

// Three readings of one run, side by side on a machine with several processors. What is wrong with the files
// each of them finds; it is told once.
std::vector<PageRun> take_runs(const CommonOptions& options, Problems& problems) {
    const std::size_t ranks = options.bases.size();
    const PageLimits limits = page_limits(ranks);
    std::uint64_t bytes = 0;
    for (const std::string& base : options.bases) {
        bytes += transaction_bytes(base);
    }
    constexpr std::size_t readings = 3;
    Progress progress(readings * bytes, options.quiet);
    std::vector<PageRun> runs(ranks);
    std::vector<Problems> found(readings * ranks);
    in_parallel(readings * ranks, [&](std::size_t i) {
        const std::string& base = options.bases[i / readings];
        PageRun& run = runs[i / readings];
        if (i % readings == 0) {
            const auto keep_left = [&](const History& history, const PhaseTable& table) {
                for (HeldBlock& block : largest_blocks(base, history, table, limits.left)) {
                    run.left.push_back({block.address, block.size, block.number, block.thread,
                                        std::move(block.phase)});
                }
            };
            run.figures = take_figures(base, found[i], &progress, keep_left);
        } else if (i % readings == 1) {
            run.tree = take_phase_tree(base, found[i], &progress);
        } else {
            run.over_time = take_over_time(base, limits.over_time, found[i], &progress);
        }
    });
    for (std::size_t i = 0; i < found.size(); i += readings) {
        problems.insert(problems.end(), found[i].begin(), found[i].end());
    }
    return runs;
}

int html(const CommonOptions& options) {
    if (page_template.head.empty()) {
        throw UsageError(
            "this memtrack was built without html. Its page stands on uPlot, which npm (Debian "
            "package npm, and a network) fetches when CMake configures the build; configure it "
            "again where npm is, with -DKXM_MEMTRACK_HTML=ON to see why it cannot");
    }
    if (options.output.empty() && platform::output_is_terminal()) {
        throw UsageError("a page is nothing for a terminal: -o FILE");
    }
    platform::make_output_binary();
    Output output(options.output, options.force);
    Problems problems;
    const std::vector<PageRun> runs = take_runs(options, problems);
    output.write(page_template.head);
    output.write(page_data(runs, problems));
    output.write(page_template.tail);
    return end_report(output, options, problems);
}

} // namespace

void add_html(CLI::App& parent, Run& run) {
    Command command(
        parent, "html",
        "A page for a browser, whole in one file: the run over its events, phases, threads, ranks");
    const auto options = std::make_shared<CommonOptions>();
    options->add_bases(command);
    options->add_output(command);
    command.runs(run, [options] { return html(*options); });
}

} // namespace memtrack
