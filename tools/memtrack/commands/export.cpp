// memtrack export: writes what others' viewers open.
#include "command.h"
#include "export/formats.h"
#include "platform/terminal.h"

#include <algorithm>
#include <array>
#include <utility>

namespace memtrack {
namespace {

using exporting::Ranks;
using exporting::Share;
using exporting::Table;

enum class Format { massif, dhat, heaptrack, pprof, perfetto, speedscope, collapsed, csv, json };

template <class Value> using Word = std::pair<const char*, Value>;
constexpr auto formats = std::to_array<Word<Format>>({{"massif", Format::massif},
                                                      {"dhat", Format::dhat},
                                                      {"heaptrack", Format::heaptrack},
                                                      {"pprof", Format::pprof},
                                                      {"perfetto", Format::perfetto},
                                                      {"speedscope", Format::speedscope},
                                                      {"collapsed", Format::collapsed},
                                                      {"csv", Format::csv},
                                                      {"json", Format::json}});
constexpr auto amounts = std::to_array<Word<exporting::ShareAmount>>(
    {{"peak", &Share::at_peak}, {"left", &Share::held}, {"allocated", &Share::allocated}});
constexpr auto tables = std::to_array<Word<Table>>(
    {{"phases", Table::phases}, {"threads", Table::threads}, {"curve", Table::curve}});

template <class Words> std::vector<std::string> names_of(const Words& words) {
    std::vector<std::string> names;
    names.reserve(words.size());
    for (const auto& [name, value] : words) {
        names.emplace_back(name);
    }
    return names;
}

// Of a name that one_of has let through.
template <class Words> auto value_of(const Words& words, const std::string& name) {
    return std::find_if(words.begin(), words.end(),
                        [&](const auto& word) { return word.first == name; })
        ->second;
}

struct ExportOptions : CommonOptions {
    std::string format, amount = "peak", table = "phases";
};

void write(Output& output, const ExportOptions& options, const Ranks& ranks,
           const Problems& problems) {
    switch (value_of(formats, options.format)) {
    case Format::massif:
        return exporting::write_massif(output, ranks.front());
    case Format::dhat:
        return exporting::write_dhat(output, ranks);
    case Format::pprof:
        return exporting::write_pprof(output, ranks);
    case Format::perfetto:
        return exporting::write_perfetto(output, ranks);
    case Format::speedscope:
        return exporting::write_speedscope(output, ranks);
    case Format::collapsed:
        return exporting::write_collapsed(output, ranks, value_of(amounts, options.amount));
    case Format::csv:
        return exporting::write_csv(output, ranks, value_of(tables, options.table));
    case Format::json:
        return exporting::write_json(output, ranks, problems);
    case Format::heaptrack: // is written while it reads
        return;
    }
}

int run_export(const ExportOptions& options) {
    const Format format = value_of(formats, options.format);
    if (options.bases.size() > 1 && (format == Format::massif || format == Format::heaptrack)) {
        throw UsageError("a file of the format " + options.format +
                         " holds one run: give one BASE");
    }
    if (format == Format::pprof && options.output.empty() && platform::output_is_terminal()) {
        throw UsageError("a file of the format pprof is nothing for a terminal: -o FILE");
    }
    platform::make_output_binary(); // others' formats are the same bytes on every system
    Output output(options.output, options.force);
    Problems problems;
    if (format == Format::heaptrack) {
        const std::string& base = options.bases.front();
        Progress progress(transaction_bytes(base), options.quiet);
        exporting::write_heaptrack(output, base, problems, &progress);
    } else {
        write(output, options, take_each(options, problems, exporting::take_survey), problems);
    }
    return end_report(output, options, problems);
}

} // namespace

void add_export(CLI::App& parent, Run& run) {
    const auto options = std::make_shared<ExportOptions>();
    Command command(parent, "export", "Write a file that others' viewers open");
    options->add_bases(command);
    command.option("--format", options->format, "What the file is to be")
        .required()
        .one_of(names_of(formats));
    command.option("--amount", options->amount, "What a collapsed file counts, in bytes")
        .one_of(names_of(amounts))
        .shows_default();
    command.option("--table", options->table, "What a CSV file holds")
        .one_of(names_of(tables))
        .shows_default();
    options->add_output(command);
    command.footer(
        "massif: ms_print, massif-visualizer. dhat: Valgrind's dh_view.html. heaptrack: "
        "heaptrack_print,\n"
        "heaptrack_gui. pprof: go tool pprof. perfetto: ui.perfetto.dev, chrome://tracing. "
        "speedscope:\n"
        "speedscope.app. collapsed: flame graph tools. Time is counted in transactions.");
    command.runs(run, [options] { return run_export(*options); });
}

} // namespace memtrack
