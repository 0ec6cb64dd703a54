// What the tests of captures share: the expected text of a line, and a capture as a string.
#pragma once

#include "KXMBasCallStack.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace test {

inline std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

/// A finished line; without a file when `file` is empty.
inline std::string line(int number, const std::string& module, const std::string& symbol,
                        const std::string& file, int line_number) {
    std::string text = std::to_string(number);
    text = std::string(text.size() < 3 ? 3 - text.size() : 0, ' ') + text + ")  " +
           padded(module, 26) + "  " + padded(symbol, 40);
    return text + (file.empty() ? "" : "  " + file + " (" + std::to_string(line_number) + ")") +
           "\n";
}

/// Takes the text over and gives it back to the runtime; nothing when there is none.
inline std::optional<std::string> taken(char* text) {
    std::optional<std::string> result;
    if (text != nullptr) {
        result = text;
        std::free(text);
    }
    return result;
}

} // namespace test
