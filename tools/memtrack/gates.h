// What --fail-if asks: that a figure of the second run may not pass the first one's by more than so much.
#pragma once

#include "figures.h"

#include <string>

namespace memtrack {

/// "peak+5%", "peak+10MiB", "leaks", "events+1000": a figure, and how much more is let pass (nothing, a share,
/// or an amount).
class Gate {
public:
    explicit Gate(const std::string& text); ///< throws UsageError

    bool fails(const Figures& before, const Figures& after) const;
    const std::string& text() const { return text_; }
    static std::string names(); ///< of the figures, for the help

private:
    std::string text_;
    std::uint64_t (*get_)(const Figures&) = nullptr;
    std::uint64_t more_ = 0;
    double share_ = 0; ///< of the first run's figure
};

} // namespace memtrack
