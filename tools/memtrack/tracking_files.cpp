// See tracking_files.h.
#include "tracking_files.h"

#include "input_files.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>

namespace memtrack {

namespace {

constexpr std::int32_t full_phase_file = 50; // phase events in every file but a thread's last
constexpr std::size_t phase_event_bytes = 128, phase_name_bytes = 120;
constexpr std::size_t path_bytes = 131072; // of one path in the table of phases
constexpr std::size_t path_record = 4 + path_bytes;
constexpr std::int32_t most_paths = 3992; // that a run can have

std::int32_t word_at(const char* bytes) {
    std::int32_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

// The text up to its terminator, which need not be there.
std::string text_in(const char* bytes, std::size_t size) {
    return {bytes, static_cast<std::size_t>(std::find(bytes, bytes + size, '\0') - bytes)};
}

// The number that is the whole of `digits`, or -1.
std::int32_t number_in(std::string_view digits) {
    std::int32_t number = -1;
    if (digits.empty() || digits[0] == '-' || (digits.size() > 1 && digits[0] == '0')) {
        return -1; // the recorder writes no leading zeros
    }
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return result.ec == std::errc() && result.ptr == digits.data() + digits.size() ? number : -1;
}

// A file of one of the smaller formats: it begins with a count and holds records of one size.
class RecordFile {
public:
    explicit RecordFile(const std::string& name) : file_(input_files().open(name)) {}
    bool is_open() const { return file_ != nullptr; }

    // How many whole records there are, at most the count. What is wrong is told; -1 when nothing can be
    // read.
    std::int32_t records(const std::string& name, std::int32_t least, std::int32_t most,
                         std::size_t record, const std::string& what, Problems& problems) {
        char bytes[count_bytes];
        if (!read(bytes, sizeof bytes)) {
            problems.push_back({name, 0,
                                file_->size() < count_bytes ? "too short for its count of records"
                                                            : "cannot be read from here on"});
            return -1;
        }
        const std::int32_t count = word_at(bytes);
        if (count < least || count > most) {
            problems.push_back({name, 0,
                                "begins with the number " + std::to_string(count) +
                                    ", which is no count of " + what + " (" +
                                    std::to_string(least) + " to " + std::to_string(most) +
                                    "): not such a file"});
            return -1;
        }
        const std::uint64_t size = file_->size();
        const std::uint64_t whole =
            (std::max(size, std::uint64_t{count_bytes}) - count_bytes) / record;
        if (whole < static_cast<std::uint64_t>(count)) {
            problems.push_back({name, count_bytes + whole * record,
                                "the file ends here, after " + std::to_string(whole) +
                                    " whole records of the " + std::to_string(count) +
                                    " that it claims"});
            return static_cast<std::int32_t>(whole);
        }
        if (size > count_bytes + static_cast<std::uint64_t>(count) * record) {
            problems.push_back({name, count_bytes + static_cast<std::uint64_t>(count) * record,
                                "the file goes on behind the " + std::to_string(count) +
                                    " records that it claims; that rest is not read"});
        }
        return count;
    }
    bool read(char* data, std::size_t size) { return file_->read(data, size) == size; }
    // A table of phases has at most 3992 times 131076 bytes.
    bool go_to(std::uint64_t offset) { return file_->go_to(offset); }

private:
    std::unique_ptr<InputFile> file_;
};

} // namespace

const char* type_name(Type type) {
    constexpr const char* names[type_count] = {"malloc", "free",   "new",     "delete", "realloc",
                                               "calloc", "valloc", "release", "acquire"};
    return names[static_cast<std::size_t>(type)];
}

std::string base_name(const std::string& argument) {
    const std::string_view name = argument;
    if (const std::size_t at = name.rfind(".memT");
        at != std::string::npos && number_in(name.substr(at + 5)) >= 0) {
        return argument.substr(0, at);
    }
    if (const std::size_t at = name.rfind(".phase_thr"); at != std::string::npos) {
        const std::string_view tail = name.substr(at + 10);
        const std::size_t bar = tail.find('_');
        if (bar != std::string::npos && number_in(tail.substr(0, bar)) >= 0 &&
            number_in(tail.substr(bar + 1)) >= 0) {
            return argument.substr(0, at);
        }
    }
    const std::string table = ".phaseStack";
    if (argument.size() > table.size() && argument.ends_with(table)) {
        return argument.substr(0, argument.size() - table.size());
    }
    return argument;
}

std::vector<std::int32_t> numbered_files(const std::string& base, const std::string& mark) {
    std::vector<std::int32_t> numbers;
    for (const std::string& ending : input_files().endings(base + mark)) {
        if (const std::int32_t number = number_in(ending); number >= 0) {
            numbers.push_back(number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

// ---------------------------------------------------------------------------------------------

PhaseTable::PhaseTable(const std::string& base, Problems& problems) {
    const std::string name = base + ".phaseStack";
    RecordFile file(name);
    if (!file.is_open()) {
        problems.push_back({name, 0,
                            "cannot be opened, so phases have numbers and no names; a run writes "
                            "it when it ends its tracking"});
        return;
    }
    const std::int32_t count = file.records(name, 0, most_paths, path_record, "phases", problems);
    // Paths are short and their places long: a first piece tells nearly all of them.
    constexpr std::size_t piece = 1020;
    std::vector<char> bytes(4 + piece);
    for (std::int32_t i = 0; i < count; ++i) {
        const std::uint64_t offset = count_bytes + static_cast<std::uint64_t>(i) * path_record;
        bool good = file.go_to(offset) && file.read(bytes.data(), 4 + piece);
        std::string path = text_in(bytes.data() + 4, piece);
        if (good && path.size() == piece) {
            bytes.resize(path_record);
            good = file.read(bytes.data() + 4 + piece, path_bytes - piece);
            path = text_in(bytes.data() + 4, path_bytes);
        }
        // All begin with it. Where a write or seek of the recorder failed, others stand elsewhere.
        if (!good || !path.starts_with("ROOT")) {
            problems.push_back({name, offset,
                                good ? "no path of phases stands here: the records are not in "
                                       "their places, and are not read from here on"
                                     : "cannot be read from here on"});
            return;
        }
        paths_[word_at(bytes.data())] = path;
    }
}

std::string PhaseTable::path(std::int32_t stack) const {
    if (stack < 0) {
        return "(no phase)";
    }
    const auto found = paths_.find(stack);
    return found != paths_.end() ? found->second : "phase " + std::to_string(stack);
}

// ---------------------------------------------------------------------------------------------

std::vector<std::int32_t> threads_with_phase_events(const std::string& base) {
    std::vector<std::int32_t> threads;
    for (const std::string& ending : input_files().endings(base + ".phase_thr")) {
        const std::size_t bar = ending.find('_');
        if (bar == std::string::npos || number_in(std::string_view(ending).substr(bar + 1)) < 0) {
            continue;
        }
        if (const std::int32_t thread = number_in(std::string_view(ending).substr(0, bar));
            thread >= 0) {
            threads.push_back(thread);
        }
    }
    std::sort(threads.begin(), threads.end());
    threads.erase(std::unique(threads.begin(), threads.end()), threads.end());
    return threads;
}

bool read_phase_events(const std::string& base, std::int32_t thread, Problems& problems,
                       const std::function<void(const PhaseEvent&)>& each) {
    const std::string start = base + ".phase_thr" + std::to_string(thread) + "_";
    const std::vector<std::int32_t> numbers =
        numbered_files(base, ".phase_thr" + std::to_string(thread) + "_");
    std::int32_t expected = 0;
    for (const std::int32_t number : numbers) {
        const std::string name = start + std::to_string(number);
        if (number != expected) {
            problems.push_back({start + std::to_string(expected), 0,
                                "the file is missing before .phase_thr" + std::to_string(thread) +
                                    "_" + std::to_string(number)});
        }
        expected = number + 1;
        RecordFile file(name);
        if (!file.is_open()) {
            problems.push_back({name, 0, "cannot be opened"});
            continue;
        }
        const std::int32_t count =
            file.records(name, 1, full_phase_file, phase_event_bytes, "phase events", problems);
        for (std::int32_t i = 0; i < count; ++i) {
            char bytes[phase_event_bytes];
            if (!file.read(bytes, sizeof bytes)) {
                problems.push_back({name,
                                    count_bytes + static_cast<std::uint64_t>(i) * phase_event_bytes,
                                    "cannot be read from here on"});
                return true;
            }
            PhaseEvent event;
            event.transaction = word_at(bytes + phase_name_bytes);
            event.entering = bytes[phase_name_bytes + 4] != 0;
            event.name = event.entering ? text_in(bytes, phase_name_bytes) : "";
            each(event);
        }
        if (count >= 0 && count < full_phase_file) {
            if (number != numbers.back()) {
                problems.push_back({start + std::to_string(expected), 0,
                                    "not read, nor are others behind it: the file before is not "
                                    "full and so the run's last"});
            }
            break;
        }
    }
    return !numbers.empty();
}

} // namespace memtrack
