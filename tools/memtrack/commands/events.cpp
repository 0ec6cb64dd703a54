// memtrack events: events, a line each, as far as filters let them through.
#include "event_lines.h"
#include "ranges.h"

#include <algorithm>
#include <cstdio>

namespace memtrack {

namespace {

struct EventsOptions : CommonOptions {
    std::string ids, address, size, phase;
    std::vector<std::int32_t> threads;
    std::vector<std::string> types;
};

class Filter {
public:
    explicit Filter(const EventsOptions& options) : options_(options) {
        const auto range = [](const std::string& text) {
            return text.empty() ? NumberRange() : parse_range(text);
        };
        ids_ = range(options.ids);
        addresses_ = range(options.address);
        sizes_ = range(options.size);
        types_.fill(options.types.empty());
        for (const std::string& name : options.types) {
            for (std::size_t i = 0; i < type_count; ++i) {
                types_[i] = types_[i] || name == type_name(static_cast<Type>(i));
            }
        }
    }

    bool is_past(std::uint64_t number) const { return number > ids_.to; }

    bool passes(const EventLine& line, const History& history, const PhaseTable& table) {
        const Transaction& record = line.event.record;
        const std::vector<std::int32_t>& threads = options_.threads;
        return ids_.contains(line.event.number) && types_[static_cast<std::size_t>(record.type)] &&
               (threads.empty() ||
                std::find(threads.begin(), threads.end(), record.thread) != threads.end()) &&
               (addresses_.contains(record.pointer) ||
                (record.type == Type::realloc_ && addresses_.contains(record.old_pointer))) &&
               passes_size(line) && passes_phase(line, history, table);
    }

private:
    // What was asked for, or what a release gave back.
    bool passes_size(const EventLine& line) const {
        const std::uint64_t asked = line.event.record.size;
        return sizes_.is_all() || (asked != no_size && sizes_.contains(asked)) ||
               (line.gone != nullptr && sizes_.contains(line.gone->size));
    }

    bool passes_phase(const EventLine& line, const History& history, const PhaseTable& table) {
        if (options_.phase.empty()) {
            return true;
        }
        if (line.phase == no_phase) {
            return false;
        }
        for (auto next = static_cast<std::uint32_t>(phases_.size()); next <= line.phase; ++next) {
            const std::string path = table.path(history.phases().id(next));
            phases_.push_back(path == options_.phase || path.starts_with(options_.phase + "->"));
        }
        return phases_[line.phase];
    }

    const EventsOptions& options_;
    NumberRange ids_, addresses_, sizes_;
    std::array<bool, type_count> types_{};
    std::vector<bool> phases_; // by dense number
};

int events(const EventsOptions& options) {
    Filter filter(options);
    Output output(options.output, options.force);
    Problems problems;
    Json json(output);
    if (options.json) {
        json.object().key("events").array();
    }
    {
        Progress progress(transaction_bytes(options.bases[0]),
                          options.quiet || options.output.empty());
        const PhaseTable table(options.bases[0], problems);
        EventReader reader(options.bases[0], problems, &progress);
        History history;
        LineWriter writer(output, options.json ? &json : nullptr, history, table);
        std::size_t written = 0;
        bool whole = true;
        for_each_line(reader, history, [&](const EventLine& line) {
            if (filter.is_past(line.event.number) ||
                (options.rows != 0 && written == options.rows)) {
                whole = false;
                return false;
            }
            if (filter.passes(line, history, table)) {
                writer.write(line);
                ++written;
            }
            return true;
        });
        if (whole) {
            history.tell(reader, problems);
        }
        if (written == 0) {
            std::fputs("memtrack: no event passes the filters\n", stderr);
        }
    }
    if (options.json) {
        write_problems(json.end(), problems);
        json.end();
    }
    return end_report(output, options, problems);
}

} // namespace

void add_events(CLI::App& parent, Run& run) {
    Command command(parent, "events", "Events, a line each; a range is 5, 5..9, 5.. or ..9");
    const auto options = std::make_shared<EventsOptions>();
    options->add_bases(command, 1, 1);
    command.option("--id", options->ids, "Numbers of events, a range");
    command.option("--thread", options->threads, "Of this thread; may be repeated");
    command.option("--phase", options->phase, "Path of a phase: in it and below");
    std::vector<std::string> names;
    for (std::size_t i = 0; i < type_count; ++i) {
        names.emplace_back(type_name(static_cast<Type>(i)));
    }
    command
        .option("--type", options->types,
                "malloc, free, ...; may be repeated, or a list with commas")
        .separated_by(',')
        .one_of(names);
    command.option("--address", options->address, "Address of the block, a range");
    command.option("--size", options->size,
                   "Bytes asked for or released, a range; 64KiB is understood");
    options->add_rows(command, 0);
    options->add_json(command);
    options->add_output(command);
    command.runs(run, [options] { return events(*options); });
}

} // namespace memtrack
