// The table of commands, in the order of the help.
#include "command.h"

namespace memtrack {

void add_report(CLI::App& parent, Run& run);
void add_leaks(CLI::App& parent, Run& run);
void add_peak(CLI::App& parent, Run& run);
void add_phases(CLI::App& parent, Run& run);
void add_events(CLI::App& parent, Run& run);
void add_block(CLI::App& parent, Run& run);
void add_diff(CLI::App& parent, Run& run);
void add_replay(CLI::App& parent, Run& run);
void add_export(CLI::App& parent, Run& run);
void add_html(CLI::App& parent, Run& run);

const std::vector<AddCommand>& commands() {
    static const std::vector<AddCommand> all = {
        add_report, add_leaks, add_peak, add_phases, add_events,
        add_block,  add_diff,  add_html, add_replay, add_export,
    };
    return all;
}

} // namespace memtrack
