// memtrack export: writes what others' viewers open.
#include "command.h"
#include "export/formats.h"
#include "platform/terminal.h"

#include <map>

namespace memtrack {
namespace {

using exporting::Ranks;
using exporting::Share;
using exporting::Table;

enum class Format { massif, dhat, heaptrack, pprof, perfetto, speedscope, collapsed, csv, json };

const std::map<std::string, Format> formats = {{"massif", Format::massif},
                                               {"dhat", Format::dhat},
                                               {"heaptrack", Format::heaptrack},
                                               {"pprof", Format::pprof},
                                               {"perfetto", Format::perfetto},
                                               {"speedscope", Format::speedscope},
                                               {"collapsed", Format::collapsed},
                                               {"csv", Format::csv},
                                               {"json", Format::json}};
const std::map<std::string, exporting::ShareAmount> amounts = {
    {"peak", &Share::at_peak}, {"left", &Share::held}, {"allocated", &Share::allocated}};
const std::map<std::string, Table> tables = {
    {"phases", Table::phases}, {"threads", Table::threads}, {"curve", Table::curve}};

struct ExportOptions : CommonOptions {
    std::string format, amount = "peak", table = "phases";
};

void write(Output& output, const ExportOptions& options, const Ranks& ranks,
           const Problems& problems) {
    switch (formats.at(options.format)) {
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
        return exporting::write_collapsed(output, ranks, amounts.at(options.amount));
    case Format::csv:
        return exporting::write_csv(output, ranks, tables.at(options.table));
    case Format::json:
        return exporting::write_json(output, ranks, problems);
    case Format::heaptrack: // is written while it reads
        return;
    }
}

int run_export(const ExportOptions& options) {
    const Format format = formats.at(options.format);
    if (options.bases.size() > 1 && (format == Format::massif || format == Format::heaptrack)) {
        throw UsageError("a file of the format " + options.format +
                         " holds one run: give one BASE");
    }
    if (format == Format::pprof && options.output.empty() && platform::output_is_terminal()) {
        throw UsageError("a file of the format pprof is nothing for a terminal: -o FILE");
    }
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

template <class Values> std::vector<std::string> names_of(const Values& values) {
    std::vector<std::string> names;
    for (const auto& [name, value] : values) {
        names.push_back(name);
    }
    return names;
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
