// See history.h.
#include "history.h"

namespace memtrack {

void History::enter(const Transaction& transaction) {
    if (transaction.pointer == 0) {
        ++refused_;
        return;
    }
    const auto [place, fresh] = held_.try_emplace(transaction.pointer);
    if (!fresh) {
        ++lost_releases_;
        held_bytes_ -= place->second.size;
        moved_[transaction.pointer] = {events_, transaction.thread};
    }
    place->second = {transaction.size, transaction.id, transaction.thread, transaction.stack};
    held_bytes_ += transaction.size;
    bytes_asked_ += transaction.size;
    if (held_bytes_ > peak_.bytes) {
        peak_ = {held_bytes_, held_.size(), transaction};
    }
}

void History::remove(std::uint64_t pointer) {
    if (pointer == 0) {
        return;
    }
    const auto found = held_.find(pointer);
    if (found == held_.end()) {
        ++unknown_releases_;
        return;
    }
    held_bytes_ -= found->second.size;
    held_.erase(found);
}

// Whether this resize left its old address before another thread was given it, which was recorded
// first: then nothing of the resizing thread was recorded in between.
bool History::was_moved_before(const Transaction& resize) {
    const auto found = moved_.find(resize.old_pointer);
    if (found == moved_.end()) {
        return false;
    }
    const Moved moved = found->second;
    if (resize.thread == moved.by_thread || last_event_[resize.thread] > moved.at) {
        return false;
    }
    moved_.erase(found);
    --lost_releases_; // this is its record
    return true;
}

void History::resize(const Transaction& transaction) {
    if (transaction.pointer == 0 && transaction.size != 0) {
        ++refused_; // the old block stays
        return;
    }
    if (!was_moved_before(transaction)) {
        remove(transaction.old_pointer);
    }
    if (transaction.pointer != 0) {
        enter(transaction);
    }
}

void History::add(const Transaction& transaction) {
    ++events_;
    ++by_type_[static_cast<std::size_t>(transaction.type)];
    switch (transaction.type) {
    case Type::malloc_:
    case Type::new_:
    case Type::calloc_:
    case Type::valloc_:
        enter(transaction);
        break;
    case Type::free_:
    case Type::delete_:
        remove(transaction.pointer);
        break;
    case Type::realloc_:
        resize(transaction);
        break;
    case Type::release: // marks, which change nothing
    case Type::acquire:
        break;
    }
    last_event_[transaction.thread] = events_;
}

} // namespace memtrack
