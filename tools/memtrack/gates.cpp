// See gates.h.
#include "gates.h"

#include "metrics.h"
#include "output.h"
#include "ranges.h"

#include <charconv>

namespace memtrack {

std::string Gate::names() {
    std::string names;
    for (const Metric& metric : metrics) {
        names += (names.empty() ? "" : ", ") + std::string(metric.gate);
    }
    return names;
}

Gate::Gate(const std::string& text) : text_(text) {
    const std::size_t plus = text.find('+');
    const std::string name = text.substr(0, plus);
    for (const Metric& metric : metrics) {
        if (metric.gate == name) {
            get_ = metric.get;
        }
    }
    if (get_ == nullptr) {
        throw UsageError("--fail-if " + text + ": '" + name + "' is none of " + names());
    }
    if (plus == std::string::npos) {
        return;
    }
    std::string more = text.substr(plus + 1);
    if (!more.ends_with('%')) {
        more_ = parse_number(more);
        return;
    }
    more.pop_back();
    const auto result = std::from_chars(more.data(), more.data() + more.size(), share_);
    if (more.empty() || result.ec != std::errc() || result.ptr != more.data() + more.size() ||
        !(share_ >= 0) || share_ > 1e9) {
        throw UsageError("--fail-if " + text + ": '" + more + "%' is no share (like 5%)");
    }
    share_ /= 100;
}

bool Gate::fails(const Figures& before, const Figures& after) const {
    const std::uint64_t old = get_(before), now = get_(after);
    return now > old && (static_cast<double>(now - old) > share_ * static_cast<double>(old)) &&
           now - old > more_;
}

} // namespace memtrack
