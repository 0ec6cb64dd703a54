// Numbers and ranges of numbers as options give them.
#pragma once

#include <cstdint>
#include <limits>
#include <string>

namespace memtrack {

/// "123", "0x7f12", "64KiB", "2MiB", "1GiB". Throws UsageError.
std::uint64_t parse_number(const std::string& text);

struct NumberRange {
    std::uint64_t from = 0, to = std::numeric_limits<std::uint64_t>::max(); ///< both within

    bool contains(std::uint64_t number) const { return number >= from && number <= to; }
    bool is_all() const { return from == 0 && to == std::numeric_limits<std::uint64_t>::max(); }
};

/// "5", "5..9", "5..", "..9". Throws UsageError.
NumberRange parse_range(const std::string& text);

} // namespace memtrack
