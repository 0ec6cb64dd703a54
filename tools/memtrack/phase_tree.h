// Phases as a tree, with what each and all below it allocated, held and left behind, from one pass.
//
// The files tell the phase of each event but a free's, and neither entries nor exits: a thread entered a phase
// at its first event there, and left it at its first event outside. What a thread did without an event is
// not seen.
#pragma once

#include "figures.h"

#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace memtrack {

struct PhaseNode {
    static constexpr std::size_t none = std::numeric_limits<std::size_t>::max();

    /// Of the blocks made in the phase: in itself, or in it and below.
    struct Of {
        Amount allocated;
        Amount held;            ///< when the run ended: not released
        std::uint64_t high = 0; ///< most bytes held at a time
        Amount at_exit;         ///< held when the phase was left last (or the run ended in it)
    };

    std::string name;
    std::size_t parent = none;
    std::vector<std::size_t> children; ///< in the order of first appearance
    Of own, inclusive;
    std::uint64_t events = 0, inclusive_events = 0;
    std::uint64_t entries = 0;       ///< over all threads
    std::uint64_t first_event = 0;   ///< number
    std::uint64_t held_at_entry = 0; ///< bytes of the whole run, when the phase was entered first
    std::uint64_t peak_within = 0;   ///< most bytes of the whole run at an event in it or below
};

class PhaseTree {
public:
    const std::vector<PhaseNode>& nodes() const { return nodes_; } ///< parents before children
    const std::vector<std::size_t>& roots() const { return roots_; }
    std::string path(std::size_t node) const;

    /// The node of a path, made with all above it if need be.
    std::size_t place(const std::string& path);
    void merge(const PhaseTree& other); ///< of another rank: figures are summed

private:
    friend class PhaseTreeWatcher;
    /// As many names as a path that a run writes can have; what more there is stays one name.
    static constexpr std::size_t most_depth = 1025;

    std::size_t child(std::size_t parent, const std::string& name);

    std::vector<PhaseNode> nodes_;
    std::vector<std::size_t> roots_;
    std::map<std::pair<std::size_t, std::string>, std::size_t> index_;
};

/// Reads a whole run.
PhaseTree take_phase_tree(const std::string& base, Problems& problems,
                          ByteCounter* counter = nullptr);

} // namespace memtrack
