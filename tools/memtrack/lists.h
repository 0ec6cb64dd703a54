// The lists that several commands show: phases by what they hold, blocks by size, and JSON of figures.
#pragma once

#include "command.h"

namespace memtrack {

/// A block that was held at a moment.
struct HeldBlock {
    std::string base; ///< the rank
    std::uint64_t address = 0, size = 0, number = 0;
    std::int32_t thread = 0;
    std::string phase;
};

/// The largest of what `history` holds, largest first, older before younger; one at least.
std::vector<HeldBlock> largest_blocks(const std::string& base, const History& history,
                                      const PhaseTable& table, std::size_t most);

/// What a run held at a moment, beside its figures.
struct Holdings {
    Figures figures;
    std::vector<HeldBlock> blocks; ///< the largest
    SizeFigures sizes;
};
struct JobHoldings {
    std::vector<Figures> ranks;
    Figures all;
    std::vector<HeldBlock> blocks;
    SizeFigures sizes;
};
JobHoldings merge(const std::vector<Holdings>& ranks, std::size_t most);

using ShareAmount = Amount ShareFigures::*; ///< at_peak or left

/// Phases whose amount is not nothing, most bytes first.
std::vector<const PhaseFigures*> by_amount(const Figures& figures, ShareAmount amount);

void write_phase_list(Output& output, const CommonOptions& options, const Figures& figures,
                      ShareAmount amount, std::uint64_t whole);
void write_phase_list(Json& json, const CommonOptions& options, const Figures& figures,
                      ShareAmount amount);
void write_blocks(Output& output, const CommonOptions& options,
                  const std::vector<HeldBlock>& blocks, std::size_t of);
void write_blocks(Json& json, const CommonOptions& options, const std::vector<HeldBlock>& blocks);
/// The line or lines that say what the peak was.
void write_peak_line(Output& output, const std::vector<Figures>& ranks, const Figures& merged);
/// Member "peak" of the object that is open.
void write_peak(Json& json, const CommonOptions& options, const Figures& all);
void write_sizes(Output& output, const SizeFigures& sizes);
void write_sizes(Json& json, const SizeFigures& sizes);
/// Says in front of a report that it is incomplete, if it is.
void write_incomplete(Output& output, const Problems& problems);
/// "1.50 MiB (1 572 864 bytes) in 3 blocks"
std::string amount_text(const Amount& amount);

} // namespace memtrack
