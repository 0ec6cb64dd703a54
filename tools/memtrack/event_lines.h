// Events one by one, with what the replay knows of the block that each released, for the commands that list
// events.
#pragma once

#include "lists.h"

namespace memtrack {

/// An event and the block that went by it.
struct EventLine {
    const Event& event;
    const Block* gone; ///< null: none
    bool refused;
    std::uint32_t phase; ///< the event's; on a free, which tells none, the block's; or no_phase
};

/// Reads one run and calls `each(line)` until it returns false.
template <class Each> void for_each_line(EventReader& reader, History& history, const Each& each);

/// Writes lines as text or JSON, one event a line.
class LineWriter {
public:
    LineWriter(Output& output, Json* json, const History& history, const PhaseTable& table)
        : output_(output), json_(json), history_(history), table_(table) {}
    void write(const EventLine& line);

private:
    const std::string& path(std::uint32_t phase);
    void write_text(const EventLine& line);
    void write_json(const EventLine& line);

    Output& output_;
    Json* json_; // null: text
    const History& history_;
    const PhaseTable& table_;
    std::vector<std::string> paths_; // by dense number
};

// ---------------------------------------------------------------------------------------------

namespace detail {

template <class Each> class LineWatcher : public Watcher {
public:
    explicit LineWatcher(const Each& each) : each_(each) {}

    void gone(const Event&, const Block& block, Gone how) {
        if (how != Gone::given_again) {
            gone_ = block;
            has_gone_ = true;
        }
    }
    void refused(const Event&) { refused_ = true; }
    void seen(const Event& event) {
        const bool of_block = event.phase == no_phase && has_gone_;
        more = more && each_(EventLine{event, has_gone_ ? &gone_ : nullptr, refused_,
                                       of_block ? gone_.phase : event.phase});
        has_gone_ = refused_ = false;
    }
    bool more = true;

private:
    const Each& each_;
    Block gone_;
    bool has_gone_ = false, refused_ = false;
};

} // namespace detail

template <class Each> void for_each_line(EventReader& reader, History& history, const Each& each) {
    detail::LineWatcher<Each> watcher(each);
    for (Batch batch; watcher.more && reader.next(batch);) {
        history.replay(batch, watcher);
    }
}

} // namespace memtrack
