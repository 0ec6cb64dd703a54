// The figures by which runs are told apart: those of ranks in a report, of two runs in a diff, and those that
// a gate may name.
#pragma once

#include "figures.h"

#include <array>
#include <string>

namespace memtrack {

struct Metric {
    const char* name;  ///< in JSON
    const char* gate;  ///< as --fail-if names it
    const char* label; ///< in text
    bool bytes;
    std::uint64_t (*get)(const Figures&);
};

inline constexpr std::array<Metric, 9> metrics = {{
    {"peak_bytes", "peak", "peak", true, [](const Figures& f) { return f.peak.bytes; }},
    {"peak_blocks", "peak-blocks", "blocks at the peak", false,
     [](const Figures& f) { return f.peak.blocks; }},
    {"left_bytes", "leaks", "not released", true, [](const Figures& f) { return f.left.bytes; }},
    {"left_blocks", "leaked-blocks", "blocks not released", false,
     [](const Figures& f) { return f.left.blocks; }},
    {"allocated_bytes", "allocated", "allocated", true,
     [](const Figures& f) { return f.allocated.bytes; }},
    {"allocated_blocks", "allocations", "blocks allocated", false,
     [](const Figures& f) { return f.allocated.blocks; }},
    {"temporary", "temporary", "temporary blocks", false,
     [](const Figures& f) { return f.temporary; }},
    {"failed", "failed", "failed requests", false, [](const Figures& f) { return f.failed; }},
    {"events", "events", "events", false, [](const Figures& f) { return f.events; }},
}};

/// A metric's value as people read it.
std::string metric_text(const Metric& metric, std::uint64_t value);

} // namespace memtrack
