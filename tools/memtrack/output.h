// What commands write with: the place for a report, JSON, and numbers as people read them.
#pragma once

#include "platform/compiler.h"
#include "problems.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace memtrack {

/// Exit statuses.
inline constexpr int done = 0, damaged = 1, wrong_usage = 2, gate_failed = 3;

/// A call that cannot be done as it is worded: ends the program with `wrong_usage`.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Standard output, or the file of -o, or a text. A file has its name when it is whole: until finish() it is
/// FILE.part, so that a disk that fills up does not cost the file that was there. Throws std::runtime_error when it
/// cannot be written.
class Output {
public:
    /// An empty name is standard output. An existing file is refused (UsageError) without `force`.
    Output(std::string name, bool force);
    explicit Output(std::string& text) : text_(&text), file_(nullptr) {}
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void write(std::string_view text);
    /// Text for people: control characters but line ends, which names in damaged files may have, become "?", so
    /// that no terminal obeys them.
    MEMTRACK_PRINTF(2, 3) void print(const char* format, ...);
    /// All is written: tells "Wrote FILE" on standard error unless `quiet`.
    void finish(bool quiet);

private:
    void check(bool good);
    void discard();
    std::string name_, target_, part_;
    std::string* text_ = nullptr;
    std::FILE* file_ = stdout;
};

/// Writes JSON piece by piece, with commas and indentation; strings that are not UTF-8 are made so.
///     json.object(); json.member("bytes", n); json.key("list").array(); ... json.end(); json.end();
class Json {
public:
    explicit Json(Output& output) : output_(output) {}

    Json& object() { return open('{', '}'); }
    Json& array() { return open('[', ']'); }
    Json& end();
    Json& key(std::string_view name);
    Json& value(std::string_view text);
    Json& value(const char* text) { return value(std::string_view(text)); }
    Json& value(const std::string& text) { return value(std::string_view(text)); }
    Json& value(bool flag) { return raw(flag ? "true" : "false"); }
    Json& value(double number); ///< finite
    Json& value(std::uint64_t number) { return raw(std::to_string(number)); }
    Json& value(std::int32_t number) { return raw(std::to_string(number)); }
    Json& value(std::uint32_t number) { return raw(std::to_string(number)); }
    template <class Value> Json& member(std::string_view name, const Value& content) {
        return key(name).value(content);
    }
    /// The next container is written on one line.
    Json& compact() {
        compact_next_ = true;
        return *this;
    }

private:
    struct Level {
        char closing;
        bool compact, empty;
    };
    Json& open(char opening, char closing);
    Json& raw(std::string_view text);
    void before_value();
    void break_line(const Level& level);

    Output& output_;
    std::vector<Level> levels_;
    bool after_key_ = false, compact_next_ = false;
};

std::string json_quoted(std::string_view text);
/// Bytes of the UTF-8 sequence that `text`, which is not empty, begins with; 0 if there is none.
std::size_t utf8_length(std::string_view text);

/// Members "complete" and "problems" of the object that is open.
void write_problems(Json& json, const Problems& problems);

std::string grouped(std::uint64_t number);                    ///< 1 234 567
std::string human_bytes(std::uint64_t bytes);                 ///< "512 bytes", "1.50 MiB"
std::string address_text(std::uint64_t address);              ///< "0x00007f0012345678"
std::string percent(std::uint64_t part, std::uint64_t whole); ///< "12.3 %"
const char* plural(std::uint64_t count);                      ///< "" or "s"

} // namespace memtrack
