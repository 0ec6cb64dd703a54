// Reads a file whole and takes it apart into lines, fields and numbers.
#include "text_scanner.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace elasticity {

namespace {

constexpr std::string_view blanks = " \t\r\v\f";

// A cut of what may be a damaged line, short enough for a message and without control characters.
struct Excerpt {
    explicit Excerpt(std::string_view text) {
        length = text.copy(characters, sizeof characters);
        std::replace_if(
            characters, characters + length,
            [](char c) { return static_cast<unsigned char>(c) < 32 || c == 127; }, '?');
    }
    operator std::string_view() const { return {characters, length}; }
    char characters[40];
    std::size_t length;
};

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

} // namespace

Vector<char> read_whole_file(const String& file) {
    const std::unique_ptr<std::FILE, CloseFile> stream(std::fopen(file.c_str(), "rb"));
    if (!stream)
        throw InputError(file, 0, {"cannot be opened: ", std::strerror(errno)});
    // The vector is the buffer; the stream needs none of its own.
    std::setvbuf(stream.get(), nullptr, _IONBF, 0);
    Vector<char> text(std::size_t{1} << 16);
    std::size_t length = 0;
    for (;;) {
        const std::size_t got =
            std::fread(text.data() + length, 1, text.size() - length, stream.get());
        length += got;
        if (std::ferror(stream.get())) {
            if (errno != EINTR) // a signal that somebody handles: what was read counts
                throw InputError(file, 0, {"cannot be read: ", std::strerror(errno)});
            std::clearerr(stream.get());
        } else if (got == 0) {
            break;
        }
        if (length == text.size())
            text.resize(text.size() * 2);
    }
    text.resize(length);
    return text;
}

bool TextScanner::next_line() {
    do {
        if (rest_.empty())
            return false;
        const std::size_t end = std::min(rest_.find('\n'), rest_.size());
        fields_ = rest_.substr(0, end);
        rest_.remove_prefix(std::min(end + 1, rest_.size()));
        ++line_;
    } while (fields_.find_first_not_of(blanks) == std::string_view::npos);
    return true;
}

void TextScanner::next_line_of(std::string_view section) {
    if (!next_line())
        fail({"the file ends inside ", section});
}

std::string_view TextScanner::field() {
    fields_.remove_prefix(std::min(fields_.find_first_not_of(blanks), fields_.size()));
    const std::size_t end = std::min(fields_.find_first_of(blanks), fields_.size());
    const std::string_view result = fields_.substr(0, end);
    fields_.remove_prefix(end);
    return result;
}

template <class T> T TextScanner::number(std::string_view what) {
    const std::string_view text = field();
    if (text.empty())
        fail({"the line ends where ", what, " should stand"});
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size())
        fail({"\"", Excerpt(text), "\" stands where ", what, " should"});
    return value;
}

double TextScanner::real(std::string_view what) {
    const double value = number<double>(what);
    if (!std::isfinite(value))
        fail({what, " is not a finite number"});
    return value;
}

std::int64_t TextScanner::integer(std::string_view what) {
    return number<std::int64_t>(what);
}

std::int64_t TextScanner::count(std::string_view what, std::int64_t bytes_each) {
    const std::int64_t value = integer(what);
    if (value < 0)
        fail({what, " is negative"});
    const auto left = static_cast<std::int64_t>(rest_.size() + fields_.size()) + 1;
    if (value > left / bytes_each)
        fail({what, " is ", Number(value), ", more than the rest of the file can hold"});
    return value;
}

} // namespace elasticity
