// The transactions of a run, <base>.memT0, <base>.memT1 and so on, as one stream of batches. A thread of
// the reader's own reads ahead and checks the records, some megabytes before the consumer; memory does not
// grow with the run.
//
// Reading goes on behind a file that is missing, behind a gap in the ids and past a record that is none;
// it ends with the first file that is not full, since only a run's last file is not: files behind it are an
// earlier run's. Each of these is told as a problem when the batch that it stands before is handed out.
#pragma once

#include "tracking_files.h"

#include <memory>
#include <span>

namespace memtrack {

/// Told of bytes as they are read, by the reader's thread; may be shared by several readers.
class ByteCounter {
public:
    virtual ~ByteCounter() = default;
    virtual void add(std::uint64_t bytes) = 0;
};

/// Events of consecutive numbers that lie one behind another in one file.
struct Batch {
    std::span<const Transaction> events; ///< types are among the nine
    std::uint64_t first = 0;             ///< number of the first: its id, without the wrap
    std::int32_t file = 0;               ///< number of the file
    std::uint64_t offset = 0;            ///< of the first event in the file, in bytes
};

class EventReader {
public:
    /// `base` as base_name() gives it. `problems` grows while batches are taken, on the taking thread;
    /// `counter` may be null; both outlive the reader.
    EventReader(std::string base, Problems& problems, ByteCounter* counter = nullptr);
    ~EventReader(); ///< at any time; what was not read stays unread
    EventReader(const EventReader&) = delete;
    EventReader& operator=(const EventReader&) = delete;

    /// The next batch, valid until the next call; false at the end of what can be read.
    bool next(Batch& batch);
    /// The next event alone. Not to be mixed with batches.
    bool next(Transaction& transaction);

    std::int32_t files() const;                ///< that batches were taken from
    std::string file_name(std::int32_t) const; ///< of a file's number

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Bytes of the transaction files that a reader of this base would read.
std::uint64_t transaction_bytes(const std::string& base);

} // namespace memtrack
