// What was held when: replays transactions in their order. Its memory grows with the blocks that are
// held at the same time, not with the length of the run.
//
// An address cannot be held twice. Where one is given out again although the record shows no release, the
// older block goes: either its release was not recorded, because recording was stopped, or a resize on
// another thread has moved it already and is recorded next.
#pragma once

#include "tracking_files.h"

#include <cstddef>
#include <unordered_map>

namespace memtrack {

struct Block {
    std::uint64_t size = 0;
    std::int32_t id = 0; ///< of the transaction that made it
    std::int32_t thread = 0;
    std::int32_t stack = 0;
};

struct Peak {
    std::uint64_t bytes = 0;
    std::size_t blocks = 0;
    Transaction transaction; ///< that reached it
};

class History {
public:
    void add(const Transaction& transaction);

    const std::unordered_map<std::uint64_t, Block>& held() const { return held_; } ///< by address
    std::uint64_t held_bytes() const { return held_bytes_; }
    const Peak& peak() const { return peak_; }

    std::uint64_t events() const { return events_; }
    std::uint64_t events(Type type) const { return by_type_[static_cast<std::size_t>(type)]; }
    std::uint64_t bytes_asked() const { return bytes_asked_; } ///< by requests that were granted
    std::uint64_t refused() const { return refused_; }         ///< requests and resizes
    std::size_t threads() const { return last_event_.size(); }
    std::uint64_t unknown_releases() const { return unknown_releases_; }
    std::uint64_t lost_releases() const { return lost_releases_; }

private:
    struct Moved { // a block whose address was given out again
        std::uint64_t at;
        std::int32_t by_thread;
    };

    void enter(const Transaction& transaction);
    void remove(std::uint64_t pointer);
    void resize(const Transaction& transaction);
    bool was_moved_before(const Transaction& resize);

    std::unordered_map<std::uint64_t, Block> held_;
    std::unordered_map<std::uint64_t, Moved> moved_;
    std::unordered_map<std::int32_t, std::uint64_t> last_event_; // by thread; counted from 1
    std::uint64_t held_bytes_ = 0;
    Peak peak_;
    std::uint64_t events_ = 0;
    std::uint64_t by_type_[type_count] = {};
    std::uint64_t bytes_asked_ = 0, refused_ = 0, unknown_releases_ = 0, lost_releases_ = 0;
};

} // namespace memtrack
