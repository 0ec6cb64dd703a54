// Measuring: the candidates of a row take turns, repetition by repetition, so that a change of the
// machine's speed meets them all alike; what is told is each one's median, and the ratio of
// medians.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench {

struct Candidate {
    std::string name;
    std::function<void(std::size_t count)> work; ///< does the measured thing `count` times
};

inline double nanoseconds(const std::function<void(std::size_t)>& work, std::size_t count) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    work(count);
    const std::chrono::duration<double, std::nano> took = Clock::now() - start;
    return took.count() / static_cast<double>(count);
}

inline double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// Median nanoseconds of one operation for each candidate, over `repetitions` interleaved rounds of
/// about `round_ms` milliseconds each, after one round that is not counted.
inline std::vector<double> measure(const std::vector<Candidate>& candidates, int repetitions = 31,
                                   double round_ms = 2.0) {
    std::vector<std::size_t> counts;
    for (const Candidate& candidate : candidates) {
        std::size_t count = 1;
        double each = nanoseconds(candidate.work, count);
        while (each * static_cast<double>(count) < round_ms * 1e6 / 4 && count < (1U << 28)) {
            count *= 2;
            each = nanoseconds(candidate.work, count);
        }
        counts.push_back(std::max<std::size_t>(1, static_cast<std::size_t>(round_ms * 1e6 / each)));
    }
    std::vector<std::vector<double>> times(candidates.size());
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        for (std::size_t i = 0; i < candidates.size(); ++i) {
            times[i].push_back(nanoseconds(candidates[i].work, counts[i]));
        }
    }
    std::vector<double> medians;
    for (const std::vector<double>& values : times) {
        medians.push_back(median(values));
    }
    return medians;
}

/// Keeps a compiler from seeing through a block.
inline void escape(void* p) {
    __asm__ volatile("" : : "g"(p) : "memory");
}

} // namespace bench
