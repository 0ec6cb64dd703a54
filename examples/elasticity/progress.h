// A line on standard error that tells how a long iteration goes.
#pragma once

#include <chrono>
#include <cstdint>

namespace elasticity {

/// Renews one line on a terminal four times a second; elsewhere writes a line every five seconds.
/// Clears the line when it goes.
class Progress {
public:
    explicit Progress(bool quiet);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void iteration(std::int64_t number, double residual);

private:
    using Clock = std::chrono::steady_clock;
    bool quiet_;
    bool terminal_;
    bool shown_ = false;
    Clock::duration interval_;
    Clock::time_point last_ = Clock::now();
};

} // namespace elasticity
