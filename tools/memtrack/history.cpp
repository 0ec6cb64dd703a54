// See history.h.
#include "history.h"

#include <cinttypes>
#include <cstdio>

namespace memtrack {

namespace {

std::string hexadecimal(std::uint64_t address) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%" PRIx64, address);
    return text;
}

std::string counted(std::uint64_t count, const char* one, const char* many) {
    return count == 1 ? one : "the first of " + std::to_string(count) + " " + many;
}

} // namespace

std::vector<std::string> History::phase_paths(const PhaseTable& table) const {
    std::vector<std::string> paths;
    for (std::uint32_t i = 0; i < phases_.size(); ++i) {
        paths.push_back(table.path(phases_.id(i)));
    }
    return paths;
}

History::Place History::place_of(const Event& event, std::uint64_t address) const {
    const std::uint64_t index = event.number - batch_->first;
    return {batch_->file, batch_->offset + index * sizeof(Transaction), event.number, address};
}

// The address of a block is given out again: its release is lost, or a resize's record is late.
void History::note_moved(const Event& event) {
    if (moved_.size() == most_moved) {
        give_up_moved(lost_);
        moved_.clear();
    }
    const std::uint64_t address = event.record.pointer;
    moved_.insert({MovedFrom{address, events_}, {place_of(event, address), event.thread}});
}

void History::give_up_moved(Oddity& lost) const {
    for (const auto& [unused, moved] : moved_) {
        if (lost.count++ == 0 || moved.place.number < lost.first.number) {
            lost.first = moved.place;
        }
    }
}

// Whether this resize left its old address before another thread was given it, which was recorded
// first: then nothing of the resizing thread was recorded in between. Of several such the oldest, since
// a later one can also be that of a thread that has recorded something since the oldest.
bool History::was_moved_before(const Event& resize) {
    const std::uint64_t address = resize.record.old_pointer;
    auto found = moved_.lower_bound({address, last_event_[resize.thread]});
    while (found != moved_.end() && found->first.first == address &&
           found->second.by_thread == resize.thread) {
        ++found;
    }
    if (found == moved_.end() || found->first.first != address) {
        return false;
    }
    moved_.erase(found); // this is its record
    return true;
}

void History::tell(const EventReader& reader, Problems& problems) const {
    Oddity lost = lost_;
    give_up_moved(lost);
    const auto add = [&](const Oddity& oddity, const std::string& text) {
        if (oddity.count != 0) {
            const Place& at = oddity.first;
            problems.push_back({reader.file_name(at.file), at.offset,
                                "event " + std::to_string(at.number) + text});
        }
    };
    add(unknown_, " releases " + hexadecimal(unknown_.first.address) +
                      ", which is not held: released twice, or made or resized while nothing was "
                      "recorded (" +
                      counted(unknown_.count, "the only one", "such releases") + ")");
    add(lost, " is given " + hexadecimal(lost.first.address) +
                  ", which is still held: its release was not recorded (" +
                  counted(lost.count, "the only one", "such events") + ")");
    add(impossible_, " has a size that no block can have, and is taken as 0 bytes (" +
                         counted(impossible_.count, "the only one", "such events") + ")");
}

} // namespace memtrack
