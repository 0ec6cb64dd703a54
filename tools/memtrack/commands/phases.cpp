// memtrack phases: the tree of phases, with what each allocated, held and left behind.
#include "lists.h"
#include "phase_tree.h"

#include <cinttypes>

namespace memtrack {

namespace {

class TextTree {
public:
    TextTree(Output& output, const PhaseTree& tree, std::size_t rows)
        : output_(output), tree_(tree), rows_(rows) {}

    void write() {
        output_.write(
            "            whole run               allocated              most held             "
            "left at exit           not released\n"
            "entered   at entry peak within        own with below        own with below  "
            "      own with below        own with below\n");
        for (const std::size_t root : tree_.roots()) {
            write_node(root, 0);
        }
        write_rest(output_, written_, tree_.nodes().size());
        output_.write(
            "Entries and exits are as events show them: a thread enters a phase by its first event "
            "there and\nleaves it by its first event elsewhere; of a free the record tells no "
            "phase.\n");
    }

private:
    void write_pair(std::uint64_t own, std::uint64_t inclusive) {
        output_.print(" %11s %10s", human_bytes(own).c_str(), human_bytes(inclusive).c_str());
    }

    void write_node(std::size_t index, std::size_t depth) {
        if (written_ == rows_) {
            return;
        }
        ++written_;
        const PhaseNode& node = tree_.nodes()[index];
        output_.print("%7s %10s  %10s", grouped(node.entries).c_str(),
                      human_bytes(node.held_at_entry).c_str(),
                      human_bytes(node.peak_within).c_str());
        const PhaseNode::Of& own = node.own;
        const PhaseNode::Of& all = node.inclusive;
        write_pair(own.allocated.bytes, all.allocated.bytes);
        write_pair(own.high, all.high);
        write_pair(own.at_exit.bytes, all.at_exit.bytes);
        write_pair(own.held.bytes, all.held.bytes);
        output_.print("  %s%s\n", std::string(2 * depth, ' ').c_str(), node.name.c_str());
        for (const std::size_t child : node.children) {
            write_node(child, depth + 1);
        }
    }

    Output& output_;
    const PhaseTree& tree_;
    std::size_t rows_, written_ = 0;
};

void write_of(Json& json, std::string_view name, const PhaseNode::Of& of) {
    json.key(name).compact().object();
    write_amount(json, "allocated", of.allocated);
    json.member("high_bytes", of.high);
    write_amount(json, "left_at_exit", of.at_exit);
    write_amount(json, "left", of.held);
    json.end();
}

// Ranks count their events each for itself, so of several there is no first one.
void write_node(Json& json, const PhaseTree& tree, std::size_t index, bool merged) {
    const PhaseNode& node = tree.nodes()[index];
    json.object().member("name", node.name).member("entries", node.entries);
    if (!merged) {
        json.member("first_event", node.first_event);
    }
    json.member("events", node.events);
    json.member("events_with_below", node.inclusive_events);
    json.member("held_at_entry_bytes", node.held_at_entry);
    json.member("peak_within_bytes", node.peak_within);
    write_of(json, "own", node.own);
    write_of(json, "with_below", node.inclusive);
    json.key("children").array();
    for (const std::size_t child : node.children) {
        write_node(json, tree, child, merged);
    }
    json.end().end();
}

// The phase events of a client's own phase buffers.
int show_events(const CommonOptions& options) {
    Output output(options.output, options.force);
    Problems problems;
    Json json(output);
    if (options.json) {
        json.object().key("events").array();
    }
    std::size_t found = 0;
    for (const std::string& base : options.bases) {
        const std::vector<std::int32_t> threads = threads_with_phase_events(base);
        if (!options.json && threads.empty()) {
            output.print(
                "There are no files %s.phase_thr*: only clients with phase buffers of their own "
                "write them.\n",
                base.c_str());
        } else if (!options.json && options.bases.size() > 1) {
            output.print("%s:\n", base.c_str());
        }
        for (const std::int32_t thread : threads) {
            std::size_t depth = 0;
            read_phase_events(base, thread, problems, [&](const PhaseEvent& event) {
                if (++found > options.rows && options.rows != 0) {
                    return;
                }
                const char* const what = event.entering ? "enter" : "exit";
                if (options.json) {
                    json.compact().object().member("base", base).member("thread", thread);
                    json.member("before_event", event.transaction).member("what", what);
                    json.member("name", event.name).end();
                    return;
                }
                depth -= !event.entering && depth != 0 ? 1U : 0U;
                output.print("thread %-3" PRId32 " before event %10" PRId32 "  %s%s %s\n", thread,
                             event.transaction, std::string(2 * depth, ' ').c_str(), what,
                             event.name.c_str());
                depth += event.entering ? 1U : 0U;
            });
        }
    }
    if (options.json) {
        write_problems(json.end(), problems);
        json.end();
    } else {
        write_rest(output, rows_shown(options, found), found);
        write_incomplete(output, problems);
    }
    return end_report(output, options, problems);
}

int phases(const CommonOptions& options) {
    Output output(options.output, options.force);
    Problems problems;
    const std::vector<PhaseTree> ranks = take_each(options, problems, take_phase_tree);
    PhaseTree all = ranks[0];
    for (std::size_t i = 1; i < ranks.size(); ++i) {
        all.merge(ranks[i]);
    }
    if (options.json) {
        Json json(output);
        json.object();
        write_problems(json, problems);
        json.key("phases").array();
        for (const std::size_t root : all.roots()) {
            write_node(json, all, root, ranks.size() > 1);
        }
        json.end().end();
    } else {
        write_incomplete(output, problems);
        TextTree(output, all, rows_shown(options, all.nodes().size())).write();
    }
    return end_report(output, options, problems);
}

} // namespace

void add_phases(CLI::App& parent, Run& run) {
    Command command(parent, "phases",
                    "The tree of phases: held at entry, peak within, allocated, left behind");
    const auto options = std::make_shared<CommonOptions>();
    options->add_bases(command);
    options->add_rows(command, 0);
    options->add_json(command);
    options->add_output(command);
    const auto events = std::make_shared<bool>(false);
    command.flag("--events", *events,
                 "Instead: entries and exits from a client's own phase buffers (.phase_thr)");
    command.runs(run,
                 [options, events] { return *events ? show_events(*options) : phases(*options); });
}

} // namespace memtrack
