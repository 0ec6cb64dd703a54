// See progress.h.
#include "progress.h"

#include "platform/terminal.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace memtrack {

Progress::Progress(std::uint64_t total, bool quiet)
    : total_(std::max<std::uint64_t>(total, 1)), wanted_(!quiet && platform::error_is_terminal()),
      next_(start_ + std::chrono::milliseconds(300)) {}

Progress::~Progress() {
    if (drawn_) {
        const auto blank = static_cast<std::size_t>(std::max(platform::error_columns() - 1, 1));
        std::fprintf(stderr, "\r%s\r", std::string(blank, ' ').c_str());
        std::fflush(stderr);
    }
}

void Progress::add(std::uint64_t bytes) {
    const std::uint64_t read = read_.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    if (!wanted_) {
        return;
    }
    const std::unique_lock lock(drawing_, std::try_to_lock);
    if (const Clock::time_point now = Clock::now(); lock && now >= next_) {
        next_ = now + std::chrono::milliseconds(100);
        show(now, read);
    }
}

void Progress::show(Clock::time_point now, std::uint64_t bytes) {
    drawn_ = true;
    const double part = // more than nothing, so that a time can be told
        std::clamp(static_cast<double>(bytes) / static_cast<double>(total_), 0.001, 1.0);
    const double seconds = std::chrono::duration<double>(now - start_).count();
    char tail[64];
    std::snprintf(tail, sizeof tail, " %3.0f %%, %.0f s left", 100 * part,
                  seconds / part - seconds);
    const int room = platform::error_columns() - 1 - 40;
    const auto width = static_cast<std::size_t>(std::clamp(room, 10, 50));
    const auto full = static_cast<std::size_t>(part * static_cast<double>(width));
    std::fprintf(stderr, "\rReading [%s%s]%s ", std::string(full, '#').c_str(),
                 std::string(width - full, '.').c_str(), tail);
    std::fflush(stderr);
}

} // namespace memtrack
