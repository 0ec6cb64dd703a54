// The figures of a run, taken in one pass over its events, and of a job of several ranks.
//
// What held the peak is had in the same pass without a copy of all sums at each new peak: with each new peak
// a counter goes up; a phase's sum that is about to change for the first time since then is set aside with
// the counter's value. At the end the sums set aside under the last value, and those that have not changed
// since, are the ones of the peak.
#pragma once

#include "history.h"

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace memtrack {

struct Amount {
    std::uint64_t bytes = 0, blocks = 0;

    void add(std::uint64_t more) {
        bytes += more;
        ++blocks;
    }
    void remove(std::uint64_t less) {
        bytes -= less;
        --blocks;
    }
    Amount& operator+=(const Amount& other) {
        bytes += other.bytes;
        blocks += other.blocks;
        return *this;
    }
    bool operator==(const Amount&) const = default;
};
class Json;
void write_amount(Json& json, std::string_view name, const Amount& amount);

/// Of the blocks that one phase or one thread made.
struct ShareFigures {
    std::uint64_t events = 0;    ///< a free counts for its thread and for no phase
    Amount allocated;            ///< by requests and resizes that were granted
    std::uint64_t temporary = 0; ///< blocks that were freed before anything else was allocated
    std::uint64_t failed = 0;    ///< requests and resizes that were refused
    Amount at_peak;              ///< held when the whole run held most
    Amount left;                 ///< not released
    std::uint64_t high = 0;      ///< most bytes held of this share at a time

    ShareFigures& operator+=(const ShareFigures& other); ///< of another rank
};

struct PhaseFigures : ShareFigures {
    std::string path;
};

struct ThreadFigures : ShareFigures {
    std::int32_t thread = 0;
    std::uint64_t released = 0;         ///< blocks that this thread released
    std::uint64_t released_foreign = 0; ///< and another one had made
};

/// Sizes asked for: bucket 0 is 0 bytes, bucket n is 2^(n-1) to 2^n - 1.
struct SizeFigures {
    static constexpr std::size_t buckets = 65;
    std::array<Amount, buckets> requests{};

    SizeFigures& operator+=(const SizeFigures& other);
};

/// Of one run, or merged over the ranks of a job.
struct Figures {
    std::string base;
    bool complete = true; ///< nothing was wrong with the files
    std::int32_t files = 0;
    std::uint64_t events = 0;
    std::array<std::uint64_t, type_count> by_type{};
    Amount allocated, peak,
        left; ///< merged peaks are a sum: the ranks' peaks are at different times
    std::uint64_t temporary = 0, failed = 0, unknown_releases = 0, lost_releases = 0;
    /// Where the peak was reached first: meaningless when merged, and when peak.blocks is 0.
    struct PeakEvent {
        std::uint64_t number = 0;
        Type type = Type::malloc_;
        std::uint64_t size = 0;
        std::int32_t thread = 0;
        std::string phase;
    } peak_event;
    SizeFigures sizes;
    std::vector<PhaseFigures> phases;   ///< in the order of first appearance; each path once
    std::vector<ThreadFigures> threads; ///< ascending; of several ranks summed by thread number
};

/// Reads a whole run. `at_end` sees the state behind the last event.
using AtEnd = std::function<void(const History&, const PhaseTable&)>;
Figures take_figures(const std::string& base, Problems& problems, ByteCounter* counter = nullptr,
                     const AtEnd& at_end = {});

/// Sums over ranks; phases are matched by their paths.
Figures merge(const std::vector<Figures>& ranks);

/// A figure's minimum, mean and maximum over ranks, and the ranks (by position) where the ends are.
struct Spread {
    std::uint64_t low = 0, high = 0;
    double mean = 0;
    std::size_t low_rank = 0, high_rank = 0;
};
template <class Get> Spread spread(const std::vector<Figures>& ranks, Get&& get) {
    Spread result;
    for (std::size_t i = 0; i < ranks.size(); ++i) {
        const std::uint64_t value = get(ranks[i]);
        if (i == 0 || value < result.low) {
            result.low = value;
            result.low_rank = i;
        }
        if (i == 0 || value > result.high) {
            result.high = value;
            result.high_rank = i;
        }
        result.mean += static_cast<double>(value) / static_cast<double>(ranks.size());
    }
    return result;
}

} // namespace memtrack
