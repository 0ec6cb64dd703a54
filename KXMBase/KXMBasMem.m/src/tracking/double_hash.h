// What the two tables share: the probe step and the walk along it. A search ends on the live match,
// or on the slot where the key should go: the first deleted one on its way, or the empty one at the
// end of it. The tables' sizes are prime and a third of their slots stays empty, so it does end.
#pragma once

#include <cstdint>

#include "tracking/fatal.h"

namespace tracking {

enum class SlotState { empty, deleted, match, other };

/// Adds 1 to a statistic, which wraps in a long run.
inline void count_up(std::int32_t& counter) {
    counter = static_cast<std::int32_t>(static_cast<std::uint32_t>(counter) + 1U);
}

inline std::uint32_t probe_step(std::uint32_t sum, std::uint32_t size, const char* source) {
    std::uint32_t step = 0;
    do {
        if (sum > 4294967293U) {
            fatal("AssertionFailed:sum <= 4294967293", source, __LINE__);
        }
        sum = sum < 0x55555554U ? 3 * sum + 1 : 2 * sum + 1; // the second may wrap
        step = sum % size;
    } while (step == 0);
    return step;
}

/// Index of the slot for a key with the start value `sum`. `state_of(index)` tells how a slot stands
/// to it.
template <class StateOf>
std::uint32_t find_slot(std::uint32_t sum, std::uint32_t size, std::int32_t& probes,
                        const char* source, StateOf state_of) {
    std::uint32_t index = sum % size;
    const std::uint32_t step = probe_step(sum, size, source);
    bool remembers = false;
    std::uint32_t remembered = 0;
    for (;;) {
        count_up(probes);
        switch (state_of(index)) {
        case SlotState::empty:
            return remembers ? remembered : index;
        case SlotState::match:
            return index;
        case SlotState::deleted:
            if (!remembers) {
                remembers = true;
                remembered = index;
            }
            break;
        case SlotState::other:
            break;
        }
        index = (index + step) % size;
    }
}

/// Two thirds full: the load limit of both tables.
inline bool at_load_limit(std::int32_t filled, std::int32_t size) {
    return 3 * std::int64_t{filled} >= 2 * std::int64_t{size};
}

inline float hit_rate(std::int32_t lookups, std::int32_t probes) {
    return lookups == 0 ? 0.0F : static_cast<float>(probes) / static_cast<float>(lookups);
}

} // namespace tracking
