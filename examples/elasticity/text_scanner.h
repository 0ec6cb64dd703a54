// Lines and fields of a text file, with every complaint bound to file and line.
#pragma once

#include "input_error.h"
#include "memory.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <string_view>

namespace elasticity {

/// The whole of a file. Throws InputError when it cannot be opened or read.
Vector<char> read_whole_file(const String& file);

/// Walks over a text by lines and over the present line by fields between blanks.
class TextScanner {
public:
    TextScanner(std::string_view file, std::string_view text) : file_(file), rest_(text) {}

    std::string_view file() const { return file_; }
    std::int32_t line() const { return line_; }

    /// Goes to the next line that is not blank; false at the end of the text.
    bool next_line();
    /// As above, but the end of the text is an error: it came inside `section`.
    void next_line_of(std::string_view section);

    /// What of the present line is not read yet.
    std::string_view remainder() const { return fields_; }
    /// The next field; empty at the end of the line.
    std::string_view field();

    double real(std::string_view what);
    std::int64_t integer(std::string_view what);
    /// A count of things that take `bytes_each` bytes of text at least. One that the rest of the
    /// file cannot hold is refused before memory is asked for it.
    std::int64_t count(std::string_view what, std::int64_t bytes_each);

    [[noreturn]] void fail(std::initializer_list<std::string_view> parts) const {
        throw InputError(file_, line_, parts);
    }

private:
    template <class T> T number(std::string_view what);

    std::string_view file_;
    std::string_view rest_;
    std::string_view fields_;
    std::int32_t line_ = 0;
};

} // namespace elasticity
