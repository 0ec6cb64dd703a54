// See tracking_files.h.
#include "tracking_files.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace memtrack {

namespace {

constexpr std::int32_t full_file = 131072;   // transactions in every file but the last
constexpr std::int32_t full_phase_file = 50; // phase events
constexpr std::size_t phase_event_bytes = 128, phase_name_bytes = 120;
constexpr std::size_t path_bytes = 131072; // of one path in the table of phases
constexpr std::int32_t most_paths = 3992;  // that a run can have

template <class Word> Word word_at(const unsigned char* bytes) {
    Word value = 0;
    for (std::size_t i = sizeof(Word); i-- > 0;) {
        value = static_cast<Word>(value << 8 | bytes[i]);
    }
    return value;
}

std::int32_t signed_word_at(const unsigned char* bytes) {
    return std::bit_cast<std::int32_t>(word_at<std::uint32_t>(bytes));
}

// The text up to its terminator, which need not be there.
std::string text_in(const char* bytes, std::size_t size) {
    return {bytes, static_cast<std::size_t>(std::find(bytes, bytes + size, '\0') - bytes)};
}

bool ends_in_number_after(const std::string& text, const std::string& mark, std::size_t& at) {
    at = text.rfind(mark);
    if (at == std::string::npos || at + mark.size() == text.size()) {
        return false;
    }
    return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(at + mark.size()), text.end(),
                       [](unsigned char c) { return std::isdigit(c) != 0; });
}

std::filesystem::path path_of(const std::string& name) {
    return {name};
}

} // namespace

const char* type_name(Type type) {
    constexpr const char* names[type_count] = {"malloc", "free",   "new",     "delete", "realloc",
                                               "calloc", "valloc", "release", "acquire"};
    return names[static_cast<std::size_t>(type)];
}

std::string base_name(const std::string& argument) {
    std::size_t at = 0;
    if (ends_in_number_after(argument, ".memT", at)) {
        return argument.substr(0, at);
    }
    const std::string table = ".phaseStack";
    if (argument.size() > table.size() && argument.ends_with(table)) {
        return argument.substr(0, argument.size() - table.size());
    }
    return argument;
}

// ---------------------------------------------------------------------------------------------

InputFile::InputFile(const std::string& name) : file_(std::fopen(name.c_str(), "rb")) {}

std::size_t InputFile::read(void* data, std::size_t size) {
    return std::fread(data, 1, size, file_.get());
}

bool InputFile::read_word(std::int32_t& value) {
    unsigned char bytes[4];
    if (read(bytes, sizeof bytes) != sizeof bytes) {
        return false;
    }
    value = signed_word_at(bytes);
    return true;
}

bool InputFile::skip(long bytes) {
    return std::fseek(file_.get(), bytes, SEEK_CUR) == 0;
}

bool InputFile::at_end() {
    const int next = std::fgetc(file_.get());
    if (next == EOF) {
        return true;
    }
    std::ungetc(next, file_.get());
    return false;
}

// ---------------------------------------------------------------------------------------------

TransactionReader::TransactionReader(std::string base, Notes& notes)
    : base_(std::move(base)), notes_(notes), file_(base_ + ".memT0") {
    name_ = base_ + ".memT0";
    if (!file_.is_open()) {
        note("cannot be opened");
        note_files_left();
        ended_ = true;
    }
}

void TransactionReader::note(const std::string& text) {
    notes_.push_back(name_ + ": " + text);
}

// What lies behind the last file that was read, if anything.
void TransactionReader::note_files_left() {
    const std::filesystem::path base = path_of(base_);
    const std::filesystem::path folder = base.has_parent_path() ? base.parent_path() : ".";
    const std::string start = base.filename().string() + ".memT";
    std::size_t left = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        std::size_t at = 0;
        if (name.starts_with(start) && ends_in_number_after(name, ".memT", at) &&
            name.size() < start.size() + 10 && std::stol(name.substr(start.size())) >= files_) {
            ++left;
        }
    }
    if (left != 0) {
        notes_.push_back(
            std::to_string(left) + " more file" + (left == 1 ? "" : "s") + " named " + base_ +
            ".memT... are not read: they do not follow on what was read, and belong to "
            "another run, or a file between is missing");
    }
}

bool TransactionReader::open_next_file() {
    if (files_ != 0) {
        if (!last_file_was_full_) {
            note_files_left();
            return false; // only the last file of a run is not full
        }
        name_ = base_ + ".memT" + std::to_string(files_);
        file_ = InputFile(name_);
        if (!file_.is_open()) {
            note_files_left();
            return false;
        }
    }
    ++files_;
    read_in_file_ = 0;
    last_file_was_full_ = false;
    if (!file_.read_word(expected_in_file_)) {
        note("too short for its count of records: the run was cut off there");
        expected_in_file_ = 0;
    } else if (expected_in_file_ < 1 || expected_in_file_ > full_file) {
        note("claims " + std::to_string(expected_in_file_) +
             " records, as no tracking file does: not read");
        expected_in_file_ = 0;
    }
    return true;
}

bool TransactionReader::fill_chunk() {
    while (read_in_file_ == expected_in_file_) {
        if (read_in_file_ != 0) {
            last_file_was_full_ = expected_in_file_ == full_file;
            if (!file_.at_end()) {
                note("longer than its count of records says; the rest is not read");
            }
        }
        if (!open_next_file()) {
            return false;
        }
    }
    const auto wanted =
        std::min(static_cast<std::size_t>(expected_in_file_ - read_in_file_), chunk_records);
    chunk_at_ = 0;
    chunk_end_ = file_.read(chunk_.data(), wanted * record_bytes) / record_bytes;
    read_in_file_ += static_cast<std::int32_t>(chunk_end_);
    if (chunk_end_ < wanted) {
        note("holds " + std::to_string(read_in_file_) + " whole records of " +
             std::to_string(expected_in_file_) + ": the run was cut off there, as by a full disk");
        expected_in_file_ = read_in_file_;
    }
    return chunk_end_ != 0 || fill_chunk();
}

bool TransactionReader::decode(const unsigned char* bytes, Transaction& transaction) {
    transaction.pointer = word_at<std::uint64_t>(bytes);
    transaction.old_pointer = word_at<std::uint64_t>(bytes + 8);
    const std::int32_t type = signed_word_at(bytes + 16);
    transaction.id = signed_word_at(bytes + 20);
    transaction.size = word_at<std::uint64_t>(bytes + 24);
    transaction.thread = signed_word_at(bytes + 32);
    transaction.stack = signed_word_at(bytes + 36);
    const auto id = static_cast<std::uint32_t>(transaction.id);
    if (id != next_id_ && !ids_told_) {
        ids_told_ = true;
        note("transaction " + std::to_string(next_id_) + " is missing, " + std::to_string(id) +
             " stands in its place; further gaps are not told");
    }
    next_id_ = id + 1;
    if (type < 0 || type >= type_count) {
        if (!types_told_) {
            types_told_ = true;
            note("transaction " + std::to_string(id) + " has the unknown type " +
                 std::to_string(type) + "; such records are left out");
        }
        return false;
    }
    transaction.type = static_cast<Type>(type);
    return true;
}

bool TransactionReader::next(Transaction& transaction) {
    while (!ended_) {
        if (chunk_at_ == chunk_end_ && !fill_chunk()) {
            ended_ = true;
            break;
        }
        if (decode(&chunk_[record_bytes * chunk_at_++], transaction)) {
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------------------------------------

PhaseTable::PhaseTable(const std::string& base, Notes& notes) {
    const std::string name = base + ".phaseStack";
    InputFile file(name);
    if (!file.is_open()) {
        notes.push_back(name + ": cannot be opened, so phases have numbers and no names; the run "
                               "did not end its tracking");
        return;
    }
    std::int32_t count = 0;
    if (!file.read_word(count) || count < 0 || count > most_paths) {
        notes.push_back(name + ": does not begin with a count of phases; not read");
        return;
    }
    std::vector<char> path(path_bytes);
    for (std::int32_t i = 0; i < count; ++i) {
        std::int32_t stack = 0;
        if (!file.read_word(stack) || file.read(path.data(), path_bytes) != path_bytes) {
            notes.push_back(name + ": holds " + std::to_string(i) + " whole records of " +
                            std::to_string(count));
            return;
        }
        paths_[stack] = text_in(path.data(), path_bytes);
    }
}

std::string PhaseTable::path(std::int32_t stack) const {
    const auto found = paths_.find(stack);
    return found != paths_.end() ? found->second : "phase " + std::to_string(stack);
}

// ---------------------------------------------------------------------------------------------

bool read_phase_events(const std::string& base, int thread, Notes& notes,
                       const std::function<void(const PhaseEvent&)>& each) {
    for (int number = 0;; ++number) {
        const std::string name =
            base + ".phase_thr" + std::to_string(thread) + "_" + std::to_string(number);
        InputFile file(name);
        if (!file.is_open()) {
            return number != 0;
        }
        std::int32_t count = 0;
        if (!file.read_word(count) || count < 1 || count > full_phase_file) {
            notes.push_back(name + ": does not begin with a count of events; not read");
            return true;
        }
        for (std::int32_t i = 0; i < count; ++i) {
            unsigned char bytes[phase_event_bytes];
            if (file.read(bytes, sizeof bytes) != sizeof bytes) {
                notes.push_back(name + ": holds " + std::to_string(i) + " whole records of " +
                                std::to_string(count));
                return true;
            }
            char text[phase_name_bytes];
            std::memcpy(text, bytes, sizeof text);
            PhaseEvent event;
            event.transaction = signed_word_at(bytes + phase_name_bytes);
            event.entering = bytes[phase_name_bytes + 4] != 0;
            event.name = event.entering ? text_in(text, sizeof text) : "";
            each(event);
        }
        if (count < full_phase_file) {
            return true;
        }
    }
}

} // namespace memtrack
