// See output.h.
#include "output.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace memtrack {

namespace fs = std::filesystem;

namespace {

// A name beside that of a file that nobody has.
std::string beside(std::string name) {
    std::error_code error;
    do {
        name += ".part";
    } while (fs::exists(fs::symlink_status(name, error)));
    return name;
}

// What the whole file takes the place of; empty where it is written in place: what is no plain file, as a device, and
// links that lead nowhere.
std::string target_of(const std::string& name) {
    std::error_code error;
    if (fs::is_regular_file(fs::status(name, error))) {
        return fs::canonical(name, error).string(); // a link stays one
    }
    return fs::exists(fs::symlink_status(name, error)) ? std::string() : name;
}

bool may_be_written(const std::string& name) {
    std::FILE* const file = std::fopen(name.c_str(), "r+b");
    if (file != nullptr) {
        std::fclose(file);
    }
    return file != nullptr;
}

} // namespace

Output::Output(std::string name, bool force) : name_(std::move(name)) {
    if (name_.empty()) {
        return;
    }
    std::error_code error;
    const bool there = fs::exists(name_, error);
    if (there && !force) {
        throw UsageError(name_ + " is there already; --force writes over it");
    }
    file_ = nullptr;
    target_ = target_of(name_);
    if (!target_.empty() && (!there || may_be_written(name_))) {
        part_ = beside(target_);
        file_ = std::fopen(part_.c_str(), "wb");
    }
    if (file_ == nullptr) { // perhaps the folder does not allow a new file, but this one
        part_.clear();
        file_ = std::fopen(name_.c_str(), "wb");
    }
    if (file_ == nullptr) {
        throw UsageError(name_ + " cannot be written");
    }
    if (there && !part_.empty()) {
        fs::permissions(part_, fs::status(name_, error).permissions(), error);
    }
}

Output::~Output() {
    if (file_ != nullptr && file_ != stdout) {
        std::fclose(file_);
    }
    discard();
}

void Output::discard() {
    if (!part_.empty()) {
        std::remove(part_.c_str());
        part_.clear();
    }
}

void Output::check(bool good) {
    if (!good) {
        throw std::runtime_error((name_.empty() ? "standard output" : name_) +
                                 " cannot be written to its end");
    }
}

void Output::write(std::string_view text) {
    if (text_ != nullptr) {
        text_->append(text);
        return;
    }
    check(std::fwrite(text.data(), 1, text.size(), file_) == text.size());
}

void Output::print(const char* format, ...) {
    char line[512];
    std::string longer;
    std::va_list arguments, again;
    va_start(arguments, format);
    va_copy(again, arguments);
    const int length = std::vsnprintf(line, sizeof line, format, arguments);
    check(length >= 0);
    const auto size = static_cast<std::size_t>(length);
    char* text = line;
    if (size >= sizeof line) {
        longer.resize(size + 1);
        text = longer.data();
        std::vsnprintf(text, size + 1, format, again);
    }
    va_end(again);
    va_end(arguments);
    std::replace_if(
        text, text + size,
        [](char c) { return (static_cast<unsigned char>(c) < 0x20 && c != '\n') || c == 0x7f; },
        '?');
    write({text, size});
}

void Output::finish(bool quiet) {
    if (text_ != nullptr) {
        return;
    }
    if (file_ == stdout) {
        check(std::fflush(stdout) == 0);
        return;
    }
    std::FILE* const file = file_;
    file_ = nullptr;
    check(std::fclose(file) == 0);
    if (!part_.empty()) {
        std::error_code error;
        fs::rename(part_, target_, error);
        check(!error);
        part_.clear();
    }
    if (!quiet) {
        std::fprintf(stderr, "Wrote %s\n", name_.c_str());
    }
}

// ---------------------------------------------------------------------------------------------

std::size_t utf8_length(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xC2 ? 0
                               : first < 0xE0 ? 2
                               : first < 0xF0 ? 3
                               : first < 0xF5 ? 4
                                              : 0;
    if (length > text.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const bool overlong = (first == 0xE0 && byte(1) < 0xA0) || (first == 0xF0 && byte(1) < 0x90);
    const bool outside = (first == 0xED && byte(1) >= 0xA0) || (first == 0xF4 && byte(1) >= 0x90);
    return overlong || outside ? 0 : length;
}

std::string json_quoted(std::string_view text) {
    std::string quoted = "\"";
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const auto byte = static_cast<unsigned char>(text[0]);
        if (length == 0) {
            quoted += "\xEF\xBF\xBD"; // the replacement character
        } else if (byte == '"' || byte == '\\') {
            quoted += '\\';
            quoted += text[0];
        } else if (byte < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            quoted += escaped;
        } else {
            quoted += text.substr(0, length);
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return quoted + '"';
}

void Json::break_line(const Level& level) {
    if (!level.compact) {
        output_.write("\n");
        output_.write(std::string(2 * levels_.size(), ' '));
    }
}

void Json::before_value() {
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (!levels_.empty()) {
        Level& level = levels_.back();
        if (!level.empty) {
            output_.write(level.compact ? ", " : ",");
        }
        level.empty = false;
        break_line(level);
    }
}

Json& Json::open(char opening, char closing) {
    before_value();
    output_.write({&opening, 1});
    const bool compact = compact_next_ || (!levels_.empty() && levels_.back().compact);
    compact_next_ = false;
    levels_.push_back({closing, compact, true});
    return *this;
}

Json& Json::end() {
    const Level level = levels_.back();
    levels_.pop_back();
    if (!level.empty) {
        break_line(level);
    }
    output_.write({&level.closing, 1});
    if (levels_.empty()) {
        output_.write("\n");
    }
    return *this;
}

Json& Json::key(std::string_view name) {
    before_value();
    output_.write(json_quoted(name) + ": ");
    after_key_ = true;
    return *this;
}

Json& Json::raw(std::string_view text) {
    before_value();
    output_.write(text);
    return *this;
}

Json& Json::value(std::string_view text) {
    return raw(json_quoted(text));
}

Json& Json::value(double number) {
    char text[40];
    std::snprintf(text, sizeof text, "%.15g", number);
    return raw(text);
}

void write_problems(Json& json, const Problems& problems) {
    json.member("complete", problems.empty()).key("problems").array();
    for (const Problem& problem : problems) {
        json.compact().object();
        json.member("file", problem.file).member("offset", problem.offset);
        json.member("text", problem.text).end();
    }
    json.end();
}

// ---------------------------------------------------------------------------------------------

std::string grouped(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3;) {
        at -= 3;
        text.insert(at, 1, ' ');
    }
    return text;
}

std::string human_bytes(std::uint64_t bytes) {
    constexpr const char* units[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return std::to_string(bytes) + " byte" + plural(bytes);
    }
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    while (value >= 1023.95) { // no number of 64 bits has 1024 EiB
        value /= 1024;
        ++unit;
    }
    char text[40];
    std::snprintf(text, sizeof text, value < 99.995 ? "%.2f %s" : "%.1f %s", value, units[unit]);
    return text;
}

std::string address_text(std::uint64_t address) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%012" PRIx64, address);
    return text;
}

std::string percent(std::uint64_t part, std::uint64_t whole) {
    char text[24];
    const double value =
        whole == 0 ? 0 : 100 * static_cast<double>(part) / static_cast<double>(whole);
    std::snprintf(text, sizeof text, "%.1f %%", value);
    return text;
}

const char* plural(std::uint64_t count) {
    return count == 1 ? "" : "s";
}

} // namespace memtrack
