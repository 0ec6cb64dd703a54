// What was held when: replays a run's transactions in their order and tells a watcher what each did. Its
// memory grows with the blocks that are held at the same time, not with the length of the run.
//
// The rules:
// - A refused request or resize changes nothing. A resize to 0 bytes with a null result is a release, as on
//   every back end but the aligned one, which keeps the block.
// - An address cannot be held twice. Where one is given out again although the record shows no release, the
//   older block goes: either its release was not recorded, because recording was stopped, or a resize on
//   another thread has moved it already and is recorded next. The latter is recognised when it comes.
// - A release of an address that is not held changes nothing. It was released twice, or made or resized
//   while recording was stopped.
//
// A watcher is a class that derives from Watcher and hides the calls that it wants; it is a template's
// argument, so that calls it does not hide cost nothing.
#pragma once

#include "dense_ids.h"
#include "event_reader.h"
#include "live_blocks.h"

#include <algorithm>
#include <array>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace memtrack {

inline constexpr std::uint32_t no_phase = ~std::uint32_t{0};

/// An event as watchers see it. `thread` and `phase` are dense: History::threads() and phases() give the
/// recording's own identifiers.
struct Event {
    const Transaction& record;
    std::uint64_t number;
    std::uint32_t thread;
    std::uint32_t phase; ///< no_phase on a free, whose record tells none
};

/// How a block went.
enum class Gone {
    released,   ///< by free or delete
    resized,    ///< by a realloc, which may have made another in its place
    given_again ///< without a record, seen when its address was given out again
};

struct Watcher {
    void made(const Event&, const Block&) {}       ///< the block is held now
    void gone(const Event&, const Block&, Gone) {} ///< it is held no more
    void peaked(const Event&) {}                   ///< more bytes are held than ever before
    void refused(const Event&) {}                  ///< a request or resize
    void seen(const Event&) {}                     ///< each event, after what it did
};

struct Peak {
    std::uint64_t bytes = 0, blocks = 0;
    std::uint64_t number = 0; ///< of the event that reached it first
    Type type = Type::malloc_;
    std::uint64_t size = 0; ///< that this event asked for
    std::uint32_t thread = 0, phase = 0;
};

class History {
public:
    /// Replays everything that the reader still has.
    template <class W> void replay(EventReader& reader, W& watcher) {
        for (Batch batch; reader.next(batch);) {
            replay(batch, watcher);
        }
    }
    template <class W> void replay(const Batch& batch, W& watcher);
    /// One event alone, which gets the next number.
    void add(const Transaction& transaction) {
        Watcher nobody;
        Batch batch;
        batch.events = {&transaction, 1};
        batch.first = events_;
        replay(batch, nobody);
    }

    const LiveBlocks& held() const { return held_; }
    std::uint64_t held_bytes() const { return held_bytes_; }
    const Peak& peak() const { return peak_; }
    std::uint64_t events() const { return events_; }
    std::uint64_t refused() const { return refused_; }
    std::uint64_t unknown_releases() const { return unknown_.count; }
    std::uint64_t lost_releases() const { return lost_.count + moved_.size(); }

    /// By dense number: `threads().id(event.thread)` is the thread as the files number it.
    const DenseIds& threads() const { return threads_; }
    const DenseIds& phases() const { return phases_; }
    /// Phase paths by dense number.
    std::vector<std::string> phase_paths(const PhaseTable& table) const;

    /// Tells what in the transactions contradicts them, at the end of the replay.
    void tell(const EventReader& reader, Problems& problems) const;

private:
    struct Place {
        std::int32_t file = 0;
        std::uint64_t offset = 0, number = 0, address = 0;
    };
    struct Oddity {
        std::uint64_t count = 0;
        Place first;
        void add(const Place& place) {
            if (count++ == 0) {
                first = place;
            }
        }
    };
    // Blocks whose address was given out again, by address and by when that was, in events: several
    // resizes can have left one address before the first of them is recorded.
    using MovedFrom = std::pair<std::uint64_t, std::uint64_t>;
    struct Moved {
        Place place;
        std::uint32_t by_thread;
    };
    static constexpr std::size_t most_moved = 65536;
    static constexpr std::uint64_t impossible_size = std::uint64_t{1} << 48;
    static constexpr std::size_t look_ahead = 12; // events whose blocks are fetched early

    template <class W> void add(const Event& event, W& watcher);
    template <class W> void enter(const Event& event, W& watcher, Gone before);
    template <class W> void remove(const Event& event, std::uint64_t address, W& watcher, Gone how);
    template <class W> void resize(const Event& event, W& watcher);
    bool was_moved_before(const Event& resize);
    void note_moved(const Event& event);
    void give_up_moved(Oddity& lost) const;
    Place place_of(const Event& event, std::uint64_t address) const;
    Block block_of(const Event& event) {
        std::uint64_t size = event.record.size;
        if (size >= impossible_size) {
            impossible_.add(place_of(event, event.record.pointer));
            size = 0;
        }
        return {event.record.pointer, size, event.number, event.phase, event.thread};
    }

    LiveBlocks held_;
    std::uint64_t held_bytes_ = 0;
    Peak peak_;
    DenseIds threads_, phases_;
    std::vector<std::uint64_t> last_event_; // by thread; counted from 1
    std::map<MovedFrom, Moved> moved_;
    const Batch* batch_ = nullptr; // that is being replayed
    std::uint64_t events_ = 0, refused_ = 0;
    Oddity unknown_, lost_, impossible_;
};

// ---------------------------------------------------------------------------------------------

template <class W> void History::enter(const Event& event, W& watcher, Gone before) {
    const Block block = block_of(event);
    Block older;
    if (held_.put(block, older)) {
        held_bytes_ -= older.size;
        if (before == Gone::given_again) {
            note_moved(event);
        }
        watcher.gone(event, older, before);
    }
    held_bytes_ += block.size;
    watcher.made(event, block);
    if (held_bytes_ > peak_.bytes) {
        peak_ = {held_bytes_,       held_.size(), event.number, event.record.type,
                 event.record.size, event.thread, event.phase};
        watcher.peaked(event);
    }
}

template <class W>
void History::remove(const Event& event, std::uint64_t address, W& watcher, Gone how) {
    if (address == 0) {
        return;
    }
    Block block;
    if (!held_.take(address, block)) {
        unknown_.add(place_of(event, address));
        return;
    }
    held_bytes_ -= block.size;
    watcher.gone(event, block, how);
}

template <class W> void History::resize(const Event& event, W& watcher) {
    const Transaction& record = event.record;
    if (record.pointer == 0 && record.size != 0) {
        ++refused_; // the old block stays
        watcher.refused(event);
        return;
    }
    const bool moved_before = !moved_.empty() && was_moved_before(event);
    if (record.pointer == record.old_pointer && !moved_before &&
        held_.find(record.pointer) != nullptr) {
        enter(event, watcher, Gone::resized); // in place
        return;
    }
    if (!moved_before) {
        remove(event, record.old_pointer, watcher, Gone::resized);
    }
    if (record.pointer != 0) {
        enter(event, watcher, Gone::given_again);
    }
}

template <class W> void History::add(const Event& event, W& watcher) {
    ++events_;
    const Transaction& record = event.record;
    switch (record.type) {
    case Type::malloc_:
    case Type::new_:
    case Type::calloc_:
    case Type::valloc_:
        if (record.pointer == 0) {
            ++refused_;
            watcher.refused(event);
        } else {
            enter(event, watcher, Gone::given_again);
        }
        break;
    case Type::free_:
    case Type::delete_:
        remove(event, record.pointer, watcher, Gone::released);
        break;
    case Type::realloc_:
        resize(event, watcher);
        break;
    case Type::release: // marks, which change nothing
    case Type::acquire:
        break;
    }
    last_event_[event.thread] = events_;
    watcher.seen(event);
}

template <class W> void History::replay(const Batch& batch, W& watcher) {
    batch_ = &batch;
    const std::span<const Transaction> events = batch.events;
    for (std::size_t i = 0; i < events.size(); ++i) {
        const Transaction& ahead = events[std::min(i + look_ahead, events.size() - 1)];
        held_.prefetch(ahead.pointer);
        const Transaction& record = events[i];
        const std::uint32_t thread = threads_.index(record.thread);
        if (thread == last_event_.size()) {
            last_event_.push_back(0);
        }
        const std::uint32_t phase =
            record.type == Type::free_ ? no_phase : phases_.index(std::max(record.stack, -1));
        add(Event{record, batch.first + i, thread, phase}, watcher);
    }
    batch_ = nullptr;
}

} // namespace memtrack
