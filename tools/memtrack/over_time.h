// A run over its events, reduced so that what is kept does not grow with the run's length: how much was held,
// as lowest and highest values of stretches of events, and where in the phases each thread was.
//
// Both begin exact and get coarser as the run goes on: when a curve has more stretches than it may have, each
// two of them become one; when a thread has more spans than it may have, the short ones are taken together
// under the phase that is above all of them. No peak is lost by the one, and nothing untrue is said by the
// other, only less.
#pragma once

#include "history.h"
#include "phase_tree.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace memtrack {

/// Bytes and blocks held after each event.
class HeldCurve {
public:
    struct Range {
        std::uint64_t low = 0, high = 0;

        void widen(std::uint64_t value) {
            low = std::min(low, value);
            high = std::max(high, value);
        }
        bool operator==(const Range&) const = default;
    };
    struct Stretch { ///< of width() events
        Range bytes, blocks;
    };

    explicit HeldCurve(std::size_t most = 2); ///< stretches; a power of two from 2 on

    /// Numbers ascend; over those that are left out, what was held stays.
    void add(std::uint64_t number, std::uint64_t bytes, std::uint64_t blocks) {
        if (!reaches(number) && begin(number)) {
            stretches_.back() = {{bytes, bytes}, {blocks, blocks}};
        } else {
            stretches_.back().bytes.widen(bytes);
            stretches_.back().blocks.widen(blocks);
        }
        last_ = number;
        bytes_ = bytes;
        blocks_ = blocks;
    }

    const std::vector<Stretch>& stretches() const { return stretches_; }
    std::uint64_t first() const { return first_; } ///< number of the first event
    std::uint64_t last() const { return last_; }
    std::uint64_t width() const { return std::uint64_t{1} << shift_; }

private:
    bool reaches(std::uint64_t number) const {
        return (number - first_) >> shift_ < stretches_.size();
    }
    bool begin(std::uint64_t number);
    void halve();

    std::size_t most_;
    std::vector<Stretch> stretches_;
    std::uint64_t first_ = 0, last_ = 0, bytes_ = 0, blocks_ = 0;
    int shift_ = 0;
};

/// From event `from` on to the next span (or the run's end) a thread was in this phase or in one below it.
struct PhaseSpan {
    static constexpr std::uint32_t several =
        ~std::uint32_t{0}; ///< phases with nothing above them all

    std::uint64_t from = 0;
    std::uint32_t node = several; ///< of a PhaseTree
    bool operator==(const PhaseSpan&) const = default;
};

/// Takes together what is shorter than `width` events; `end` is behind the last event. What is left is not
/// shorter, but perhaps the first, and begins at most `width` events from where it began.
std::vector<PhaseSpan> coarser(const std::vector<PhaseSpan>& spans, std::uint64_t end,
                               std::uint64_t width, const PhaseTree& tree);
/// The same, with the least width (a power of two) that leaves at most `most` spans.
std::vector<PhaseSpan> at_most(std::size_t most, std::vector<PhaseSpan> spans, std::uint64_t end,
                               const PhaseTree& tree);

struct Refusal { ///< of a request or resize
    std::uint64_t number = 0, size = 0;
    Type type = Type::malloc_;
    std::int32_t thread = 0;
    std::uint32_t node = 0;
};

struct OverTime {
    struct Limits {
        std::size_t stretches = 65536; ///< of the curve; a power of two
        std::size_t spans = 4096;      ///< of each thread
        std::size_t threads = 64;      ///< whose spans are kept: those that came first
        std::size_t refusals = 1000;   ///< the first ones
    };
    struct Thread {
        std::int32_t thread = 0;
        std::vector<PhaseSpan> spans;
    };

    HeldCurve curve;
    PhaseTree tree; ///< its names alone, no figures
    std::vector<Thread> threads;
    std::vector<Refusal> refusals;
};

/// Reads a whole run.
OverTime take_over_time(const std::string& base, const OverTime::Limits& limits, Problems& problems,
                        ByteCounter* counter = nullptr);

} // namespace memtrack
