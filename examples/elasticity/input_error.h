// What is wrong with the user's input, as a sentence that names the file and the line.
//
// The text lies in the exception itself: reporting a bad input needs no further memory.
#pragma once

#include <charconv>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <string_view>

namespace elasticity {

/// A number as text, without locale and without memory.
class Number {
public:
    template <class T> explicit Number(T value) {
        end_ = std::to_chars(text_, text_ + sizeof text_, value).ptr;
    }
    /// In `digits` significant digits.
    Number(double value, int digits) {
        end_ = std::to_chars(text_, text_ + sizeof text_, value, std::chars_format::general, digits)
                   .ptr;
    }
    operator std::string_view() const { return {text_, static_cast<std::size_t>(end_ - text_)}; }

private:
    char text_[40];
    char* end_;
};

class InputError : public std::exception {
public:
    explicit InputError(std::initializer_list<std::string_view> parts) noexcept { append(parts); }

    /// A message about `file`; a `line` below 1 means that no line can be named.
    InputError(std::string_view file, std::int64_t line,
               std::initializer_list<std::string_view> parts) noexcept {
        append({file, ":"});
        if (line > 0)
            append({Number(line), ":"});
        append({" "});
        append(parts);
    }

    const char* what() const noexcept override { return text_; }

private:
    void append(std::initializer_list<std::string_view> parts) noexcept {
        for (const std::string_view part : parts)
            length_ += part.copy(text_ + length_, sizeof text_ - 1 - length_);
        text_[length_] = '\0';
    }

    char text_[1024];
    std::size_t length_ = 0;
};

} // namespace elasticity
