// The lists that several commands show: phases by what they hold, blocks by size, and JSON of figures.
#pragma once

#include "command.h"

namespace memtrack {

/// Blocks that were held at a moment, with their phases' paths.
struct HeldBlock {
    std::uint64_t address = 0, size = 0, number = 0;
    std::int32_t thread = 0;
    std::string phase;
};

/// The largest of what `history` holds, largest first, older before younger.
std::vector<HeldBlock> largest_blocks(const History& history, const PhaseTable& table, std::size_t most);

using ShareAmount = Amount ShareFigures::*; ///< at_peak or left

/// Phases whose amount is not nothing, most bytes first.
std::vector<const PhaseFigures*> by_amount(const Figures& figures, ShareAmount amount);

void write_phase_list(Output& output, const CommonOptions& options, const Figures& figures,
                      ShareAmount amount, std::uint64_t whole);
void write_phase_list(Json& json, const CommonOptions& options, const Figures& figures,
                      ShareAmount amount);
void write_blocks(Output& output, const std::vector<HeldBlock>& blocks, std::size_t of);
void write_blocks(Json& json, const std::vector<HeldBlock>& blocks);
void write_amount(Json& json, std::string_view name, const Amount& amount);
/// The line or lines that say what the peak was.
void write_peak_line(Output& output, const std::vector<Figures>& ranks, const Figures& merged);
/// "THE RESULT IS INCOMPLETE" and why, in front of a report.
void write_incomplete(Output& output, const Problems& problems);
/// "1.50 MiB (1 572 864 bytes) in 3 blocks"
std::string amount_text(const Amount& amount);

} // namespace memtrack
