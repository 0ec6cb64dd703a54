// See ranges.h.
#include "ranges.h"

#include "output.h"

#include <charconv>
#include <string_view>

namespace memtrack {

std::uint64_t parse_number(const std::string& text) {
    struct Unit {
        std::string_view name;
        std::uint64_t factor;
    };
    constexpr Unit units[] = {{"KiB", std::uint64_t{1} << 10},
                              {"MiB", std::uint64_t{1} << 20},
                              {"GiB", std::uint64_t{1} << 30}};
    std::string_view digits = text;
    std::uint64_t factor = 1;
    for (const Unit& unit : units) {
        if (digits.ends_with(unit.name)) {
            digits.remove_suffix(unit.name.size());
            factor = unit.factor;
        }
    }
    const bool hexadecimal = digits.starts_with("0x") || digits.starts_with("0X");
    if (hexadecimal) {
        digits.remove_prefix(2);
    }
    std::uint64_t number = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number,
                                        hexadecimal ? 16 : 10);
    if (digits.empty() || result.ec != std::errc() || result.ptr != digits.data() + digits.size() ||
        number > std::numeric_limits<std::uint64_t>::max() / factor) {
        throw UsageError("'" + text + "' is no number (like 4096, 0x1000 or 4KiB)");
    }
    return number * factor;
}

NumberRange parse_range(const std::string& text) {
    NumberRange range;
    const std::size_t dots = text.find("..");
    if (dots == std::string::npos) {
        range.from = range.to = parse_number(text);
        return range;
    }
    if (dots != 0) {
        range.from = parse_number(text.substr(0, dots));
    }
    if (dots + 2 != text.size()) {
        range.to = parse_number(text.substr(dots + 2));
    }
    if (range.from > range.to) {
        throw UsageError("the range '" + text + "' ends before it begins");
    }
    return range;
}

} // namespace memtrack
