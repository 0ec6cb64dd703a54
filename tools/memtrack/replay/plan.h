// Makes of a recording the operations that repeat it. A block's address, which another allocator would not
// give again, becomes the number of a slot; slots are used again, so there are as many as blocks were held
// at a time.
//
// A resize is one operation, and a request that the recording saw refused is none. So is a release of an
// address that the recording does not know. A block whose address was given out again without a record of
// its release is released there, so that as much is held as the other commands tell.
#pragma once

#include "history.h"
#include "ops.h"

#include <cstdint>
#include <vector>

namespace memtrack::replay {

/// A watcher of a recording's history; `Sink` is called with each operation.
template <class Sink> class Plan : public Watcher {
public:
    /// `peak` is the number of the event that reaches the peak; with none, no operation marks it.
    Plan(Sink& sink, std::uint64_t peak) : sink_(sink), peak_(peak) {}

    std::uint32_t slots() const { return slots_; }

    void made(const Event& event, const Block& block) {
        std::uint32_t slot = resized_;
        Kind kind = Kind::resize;
        if (slot == no_slot) {
            slot = take_slot();
            kind = event.record.type == Type::calloc_ ? Kind::clear : Kind::allocate;
        }
        resized_ = no_slot;
        Block before;
        held_.put({block.address, block.size, slot, 0, 0}, before);
        sink_({block.size, slot, kind});
    }
    void gone(const Event&, const Block& block, Gone how) {
        Block held;
        held_.take(block.address, held);
        const auto slot = static_cast<std::uint32_t>(held.number);
        if (how == Gone::resized) {
            resized_ = slot; // into what is made next, if anything
        } else {
            release(slot);
        }
    }
    void seen(const Event& event) {
        if (resized_ != no_slot) {
            release(resized_);
            resized_ = no_slot;
        }
        if (event.number == peak_) {
            sink_({0, 0, Kind::peak});
        }
    }

private:
    static constexpr std::uint32_t no_slot = ~std::uint32_t{0};

    std::uint32_t take_slot() {
        if (free_.empty()) {
            return slots_++;
        }
        const std::uint32_t slot = free_.back();
        free_.pop_back();
        return slot;
    }
    void release(std::uint32_t slot) {
        free_.push_back(slot);
        sink_({0, slot, Kind::release});
    }

    Sink& sink_;
    std::uint64_t peak_;
    LiveBlocks held_; // a block's number is its slot
    std::vector<std::uint32_t> free_;
    std::uint32_t slots_ = 0, resized_ = no_slot;
};

} // namespace memtrack::replay
