// See event_reader.h. A file is taken in pieces of some hundred kilobytes, which stay in a cache between
// the reading thread and the consumer; `slots` pieces are on their way at most.
#include "event_reader.h"

#include "input_files.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace memtrack {

namespace {

constexpr std::size_t slot_records = 16384, slots = 4;
constexpr std::size_t most_told = 10; // problems of one kind

struct Stretch { // of good records with consecutive numbers
    std::uint32_t begin, end;
    std::uint64_t first;
};

struct Slot {
    std::vector<Transaction> records; // as many as were ever wanted
    std::vector<Stretch> stretches;
    Problems problems;
    std::int32_t file = 0;
    std::uint64_t offset = 0; // of records[0]
};

// Behind the last problem of a kind that is told.
std::string most_told_text(std::size_t told) {
    return told == most_told ? "; further ones are not told" : "";
}

std::string name_of(const std::string& base, std::int32_t number) {
    return base + ".memT" + std::to_string(number);
}

} // namespace

// Fills slots in turn; `fill` returns false when nothing is left.
class Producer {
public:
    Producer(std::string base, ByteCounter* counter)
        : base_(std::move(base)), counter_(counter), numbers_(numbered_files(base_, ".memT")) {}

    bool fill(Slot& slot);
    const std::string& base() const { return base_; }

private:
    bool open_next(Slot& slot);
    void begin_file(Slot& slot);
    void end_file(Slot& slot);
    void check(Slot& slot, std::size_t records);
    void check_slowly(Slot& slot, std::size_t records);
    void note(Slot& slot, std::uint64_t offset, const std::string& text) const {
        slot.problems.push_back({name_of(base_, number_), offset, text});
    }

    std::string base_;
    ByteCounter* counter_;
    std::vector<std::int32_t> numbers_;
    std::size_t next_file_ = 0; // in numbers_
    std::int32_t number_ = 0;   // of the present file
    std::unique_ptr<InputFile> file_;
    std::int32_t claimed_ = 0, read_ = 0; // records of the present file
    std::uint64_t next_number_ = 0;       // that the next record should have
    std::size_t gaps_ = 0, bad_types_ = 0;
    bool last_was_full_ = true; // so a file may follow
    bool skipped_ = false;      // a file that was not read: its events are missing
    bool ended_ = false;
};

// Opens the file that follows, past one that cannot be read. Tells files that are missing before it, and those
// that are left because the one before it was the last.
bool Producer::open_next(Slot& slot) {
    if (numbers_.empty()) {
        // A run without an event ends with its table of phases alone.
        if (input_files().open(base_ + ".phaseStack") == nullptr) {
            note(slot, 0, "there is no such file");
        }
        return false;
    }
    if (next_file_ >= numbers_.size()) {
        return false;
    }
    const std::int32_t expected = next_file_ == 0 ? 0 : number_ + 1;
    if (!last_was_full_) {
        const std::size_t left = numbers_.size() - next_file_;
        number_ = numbers_[next_file_];
        next_file_ = numbers_.size();
        note(slot, 0,
             "not read, nor are others behind it (" + std::to_string(left) +
                 " in all): the file before is not full and so its run's last, and these are "
                 "an earlier run's");
        return false;
    }
    number_ = numbers_[next_file_++];
    if (number_ != expected) {
        const std::int32_t present = number_;
        number_ = expected;
        note(slot, 0,
             present - expected == 1
                 ? "the file is missing; what follows it is read"
                 : "files from this one to .memT" + std::to_string(present - 1) +
                       " are missing; what follows them is read");
        number_ = present;
        skipped_ = true;
    }
    if (skipped_) { // the ids would tell it a second time
        next_number_ = static_cast<std::uint64_t>(number_) * full_file;
        skipped_ = false;
    }
    begin_file(slot);
    return true;
}

void Producer::begin_file(Slot& slot) {
    const std::string name = name_of(base_, number_);
    file_ = input_files().open(name);
    claimed_ = read_ = 0;
    last_was_full_ = false;
    if (!file_) {
        note(slot, 0, "cannot be opened");
        last_was_full_ = skipped_ = true;
        return;
    }
    const std::uint64_t size = file_->size();
    if (file_->read(&claimed_, count_bytes) != count_bytes) {
        claimed_ = 0;
        note(slot, 0,
             size < count_bytes ? "too short for its count of records: the run was cut off there"
                                : "cannot be read from here on");
    } else if (claimed_ < 1 || claimed_ > full_file) {
        note(slot, 0,
             "begins with the number " + std::to_string(claimed_) +
                 ", which is no count of records (1 to 131072): not a tracking file");
        claimed_ = 0;
        last_was_full_ = skipped_ = true;
    } else {
        const std::uint64_t whole =
            (size - std::min(size, std::uint64_t{count_bytes})) / sizeof(Transaction);
        last_was_full_ = claimed_ == full_file;
        if (whole < static_cast<std::uint64_t>(claimed_)) {
            note(slot, count_bytes + whole * sizeof(Transaction),
                 "the file ends here, after " + std::to_string(whole) + " whole records of the " +
                     std::to_string(claimed_) +
                     " that it claims: the run was cut off, as by a full disk");
            claimed_ = static_cast<std::int32_t>(whole);
            last_was_full_ = false;
        } else if (size >
                   count_bytes + static_cast<std::uint64_t>(claimed_) * sizeof(Transaction)) {
            note(slot, count_bytes + static_cast<std::uint64_t>(claimed_) * sizeof(Transaction),
                 "the file goes on behind the " + std::to_string(claimed_) +
                     " records that it claims; that rest is not read");
        }
    }
    if (counter_ != nullptr) {
        counter_->add(std::min(size, std::uint64_t{count_bytes}));
    }
}

bool Producer::fill(Slot& slot) {
    slot.stretches.clear();
    slot.problems.clear();
    while (!ended_ && read_ == claimed_) {
        if (!open_next(slot)) {
            ended_ = true;
        }
    }
    slot.file = number_;
    if (ended_) {
        return false;
    }
    const auto wanted = std::min(static_cast<std::size_t>(claimed_ - read_), slot_records);
    if (slot.records.size() < wanted) {
        slot.records.resize(wanted);
    }
    slot.offset = count_bytes + static_cast<std::uint64_t>(read_) * sizeof(Transaction);
    const std::size_t bytes = file_->read(slot.records.data(), wanted * sizeof(Transaction));
    const std::size_t records = bytes / sizeof(Transaction);
    if (records < wanted) {
        note(slot, slot.offset + records * sizeof(Transaction), "cannot be read from here on");
        claimed_ = read_ + static_cast<std::int32_t>(records);
        last_was_full_ = false;
    }
    check(slot, records);
    read_ += static_cast<std::int32_t>(records);
    if (counter_ != nullptr) {
        counter_->add(bytes);
    }
    return true;
}

void Producer::check(Slot& slot, std::size_t records) {
    const auto first = static_cast<std::uint32_t>(next_number_);
    std::uint32_t wrong = 0;
    for (std::size_t i = 0; i < records; ++i) {
        const Transaction& record = slot.records[i];
        wrong |= static_cast<std::uint32_t>(record.id) ^ (first + static_cast<std::uint32_t>(i));
        wrong |= static_cast<std::uint32_t>(static_cast<std::uint32_t>(record.type) >= type_count);
    }
    if (wrong != 0) {
        check_slowly(slot, records);
    } else if (records != 0) {
        slot.stretches.push_back({0, static_cast<std::uint32_t>(records), next_number_});
        next_number_ += records;
    }
}

void Producer::check_slowly(Slot& slot, std::size_t records) {
    for (std::size_t i = 0; i < records; ++i) {
        const Transaction& record = slot.records[i];
        const std::uint64_t offset = slot.offset + i * sizeof(Transaction);
        auto ahead = static_cast<std::int32_t>(static_cast<std::uint32_t>(record.id) -
                                               static_cast<std::uint32_t>(next_number_));
        // Where the next record goes on as if nothing were missing, this id alone is wrong. So is it taken where
        // there is no next one here: what is missing is told behind it, or was behind the run.
        const bool alone =
            ahead != 0 && (i + 1 == records || static_cast<std::uint32_t>(slot.records[i + 1].id) ==
                                                   static_cast<std::uint32_t>(next_number_ + 1));
        if (alone) {
            ahead = 0;
            if (++gaps_ <= most_told) {
                note(slot, offset,
                     "event " + std::to_string(next_number_) + " has the wrong id " +
                         std::to_string(record.id) + most_told_text(gaps_));
            }
        }
        if (ahead != 0 && ++gaps_ <= most_told) {
            note(slot, offset,
                 "event " + std::to_string(next_number_) + " is missing, " +
                     std::to_string(static_cast<std::uint32_t>(record.id)) +
                     " stands in its place" + most_told_text(gaps_));
        }
        // An id that lies behind is an older record's or damaged: counting goes on past it.
        next_number_ += static_cast<std::uint64_t>(std::max(ahead, 0));
        if (static_cast<std::uint32_t>(record.type) >= type_count) {
            if (++bad_types_ <= most_told) {
                note(slot, offset,
                     "event " + std::to_string(next_number_) + " has the unknown type " +
                         std::to_string(static_cast<std::int32_t>(record.type)) +
                         " and is left out" + most_told_text(bad_types_));
            }
        } else if (const auto at = static_cast<std::uint32_t>(i);
                   !slot.stretches.empty() && slot.stretches.back().end == at && ahead == 0) {
            ++slot.stretches.back().end;
        } else {
            slot.stretches.push_back({at, at + 1, next_number_});
        }
        ++next_number_;
    }
}

// ---------------------------------------------------------------------------------------------

struct EventReader::State {
    State(std::string base, Problems& told, ByteCounter* counter)
        : producer(std::move(base), counter), problems(told), ring(slots) {
        thread = std::thread([this] { produce(); });
    }
    ~State() {
        {
            const std::lock_guard lock(mutex);
            stopped = true;
        }
        changed.notify_all();
        thread.join();
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void produce() {
        for (std::size_t into = 0;; into = (into + 1) % slots) {
            {
                std::unique_lock lock(mutex);
                changed.wait(lock, [this] { return filled < slots || stopped; });
                if (stopped) {
                    return;
                }
            }
            const bool more = producer.fill(ring[into]);
            {
                const std::lock_guard lock(mutex);
                ++filled;
                ended = !more;
            }
            changed.notify_all();
            if (!more) {
                return;
            }
        }
    }

    // Gives the slot in hand back and takes the next; null behind the last.
    Slot* take_slot() {
        std::unique_lock lock(mutex);
        if (in_hand) {
            --filled;
            at = (at + 1) % slots;
            in_hand = false;
            changed.notify_all();
        }
        changed.wait(lock, [this] { return filled != 0 || ended; });
        if (filled == 0) {
            return nullptr;
        }
        in_hand = true;
        return &ring[at];
    }

    bool next(Batch& batch) {
        while (slot == nullptr || stretch == slot->stretches.size()) {
            slot = take_slot();
            stretch = 0;
            if (slot == nullptr) {
                return false;
            }
            problems.insert(problems.end(), slot->problems.begin(), slot->problems.end());
            if (!slot->stretches.empty() && slot->file != last_file) {
                last_file = slot->file;
                ++files;
            }
        }
        const Stretch& next = slot->stretches[stretch++];
        batch.events = {slot->records.data() + next.begin, slot->records.data() + next.end};
        batch.first = next.first;
        batch.file = slot->file;
        batch.offset = slot->offset + next.begin * sizeof(Transaction);
        return true;
    }

    Producer producer; // used by the thread alone, but for its base
    Problems& problems;
    std::vector<Slot> ring;
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t filled = 0; // the one in hand included
    bool ended = false, stopped = false;

    std::size_t at = 0, stretch = 0; // the consumer's, from here on
    bool in_hand = false;
    Slot* slot = nullptr;
    std::int32_t files = 0, last_file = -1;
    Batch single;
    std::size_t single_at = 0;
    std::thread thread;
};

EventReader::EventReader(std::string base, Problems& problems, ByteCounter* counter)
    : state_(std::make_unique<State>(std::move(base), problems, counter)) {}

EventReader::~EventReader() = default;

bool EventReader::next(Batch& batch) {
    return state_->next(batch);
}

bool EventReader::next(Transaction& transaction) {
    State& state = *state_;
    if (state.single_at == state.single.events.size()) {
        state.single_at = 0;
        state.single.events = {};
        if (!state.next(state.single)) {
            return false;
        }
    }
    transaction = state.single.events[state.single_at++];
    return true;
}

std::int32_t EventReader::files() const {
    return state_->files;
}

std::string EventReader::file_name(std::int32_t number) const {
    return name_of(state_->producer.base(), number);
}

std::uint64_t transaction_bytes(const std::string& base) {
    std::uint64_t bytes = 0;
    for (const std::int32_t number : numbered_files(base, ".memT")) {
        bytes += input_files().size(name_of(base, number));
    }
    return bytes;
}

} // namespace memtrack
