// What exports are made of, taken from a run in one pass: amounts by phase and by phase and thread, the curve of
// what was held, and when threads were in which phase. Memory is bounded by held blocks, phases and threads.
#pragma once

#include "curve.h"
#include "figures.h"
#include "phase_tree.h"

#include <cstdint>
#include <string>
#include <vector>

namespace memtrack::exporting {

/// Of the blocks that a phase made, or a thread in a phase.
struct Share {
    std::uint32_t phase = 0, thread = 0; ///< positions in Survey::phases and threads
    Amount allocated, held;              ///< held: now; at the end what was not released
    Amount high;                         ///< when most bytes of this share were held
    Amount at_peak;                      ///< when most of the whole run were held
    std::uint64_t lifetimes = 0;         ///< of its blocks, summed, in events
    std::uint64_t peaks = 0;             ///< new peaks there had been when at_peak was set aside
};

using ShareAmount = Amount Share::*;

/// A thread was in a phase from event `begin` until before event `end`.
struct Slice {
    std::uint64_t begin = 0, end = 0;
    std::size_t node = 0; ///< of Survey::tree
    std::uint32_t thread = 0;
};

struct Survey {
    std::string base;
    std::uint64_t events = 0, end = 0; ///< end: the number behind the last event's
    Peak peak;
    Amount allocated, left;
    std::vector<std::string> phases;    ///< paths
    std::vector<std::size_t> nodes;     ///< of the phases in `tree`
    std::vector<std::int32_t> threads;  ///< as the recording numbers them
    std::vector<Share> by_phase;        ///< one for each phase, in that order
    std::vector<Share> by_phase_thread; ///< of those that made any block
    PhaseTree tree;
    std::vector<CurvePoint> curve;
    std::vector<Slice> slices; ///< in the order of their ends; those inside another before it
    std::uint64_t slices_left_out = 0, shortest_slice = 1;
};

Survey take_survey(const std::string& base, Problems& problems, ByteCounter* counter);

/// Phases from the root to this node of the tree.
std::vector<std::size_t> nodes_to(const PhaseTree& tree, std::size_t node);

} // namespace memtrack::exporting
