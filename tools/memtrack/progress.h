// A bar on standard error while files are read, if that is a terminal and reading takes longer than a moment.
#pragma once

#include "event_reader.h"

#include <atomic>
#include <chrono>
#include <mutex>

namespace memtrack {

class Progress : public ByteCounter {
public:
    /// `total` bytes are expected. Nothing is shown when `quiet` or when standard error is no terminal.
    Progress(std::uint64_t total, bool quiet);
    ~Progress() override; ///< takes the bar away
    void add(std::uint64_t bytes) override;

private:
    using Clock = std::chrono::steady_clock;
    void show(Clock::time_point now, std::uint64_t bytes);

    const std::uint64_t total_;
    const bool wanted_;
    const Clock::time_point start_ = Clock::now();
    std::atomic<std::uint64_t> read_ = 0;
    std::mutex drawing_;
    Clock::time_point next_;
    bool drawn_ = false;
};

} // namespace memtrack
