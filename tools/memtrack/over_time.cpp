// See over_time.h.
#include "over_time.h"

namespace memtrack {

HeldCurve::HeldCurve(std::size_t most) : most_(most) {
    stretches_.reserve(most);
}

// Makes place for this event, which no stretch reaches, nor does one that became wider: there may be an even number of
// them. True when its stretch begins with it; it does not when events before it are missing.
bool HeldCurve::begin(std::uint64_t number) {
    const bool first = stretches_.empty();
    if (first) {
        first_ = number;
    }
    while ((number - first_) >> shift_ >= most_) {
        halve();
    }
    const Stretch still = {{bytes_, bytes_}, {blocks_, blocks_}};
    stretches_.resize(((number - first_) >> shift_) + 1, still);
    return first || number == last_ + 1 || (number - first_) % width() == 0;
}

void HeldCurve::halve() {
    const auto both = [](Range a, const Range& b) {
        a.widen(b.low);
        a.widen(b.high);
        return a;
    };
    const std::size_t count = stretches_.size();
    for (std::size_t i = 0; i < count; i += 2) {
        const Stretch& a = stretches_[i];
        const Stretch& b = stretches_[std::min(i + 1, count - 1)];
        stretches_[i / 2] = {both(a.bytes, b.bytes), both(a.blocks, b.blocks)};
    }
    stretches_.resize((count + 1) / 2);
    ++shift_;
}

// ---------------------------------------------------------------------------------------------

namespace {

std::uint32_t parent_of(const PhaseTree& tree, std::uint32_t node) {
    const std::size_t parent = tree.nodes()[node].parent;
    return parent == PhaseNode::none ? PhaseSpan::several : static_cast<std::uint32_t>(parent);
}

// Parents have the lower numbers, so the higher of two is never above the other.
std::uint32_t common_phase(const PhaseTree& tree, std::uint32_t a, std::uint32_t b) {
    while (a != b && a != PhaseSpan::several && b != PhaseSpan::several) {
        std::uint32_t& deeper = a > b ? a : b;
        deeper = parent_of(tree, deeper);
    }
    return a == b ? a : PhaseSpan::several;
}

} // namespace

std::vector<PhaseSpan> coarser(const std::vector<PhaseSpan>& spans, std::uint64_t end,
                               std::uint64_t width, const PhaseTree& tree) {
    const auto end_of = [&](std::size_t i) {
        return i + 1 < spans.size() ? spans[i + 1].from : end;
    };
    const auto is_short = [&](std::size_t i) { return end_of(i) - spans[i].from < width; };
    std::vector<PhaseSpan> result;
    for (std::size_t i = 0; i < spans.size();) {
        PhaseSpan span = spans[i];
        std::uint64_t until = end_of(i);
        ++i;
        for (; until - span.from < width && i < spans.size() && is_short(i); ++i) {
            span.node = common_phase(tree, span.node, spans[i].node);
            until = end_of(i);
        }
        if (until - span.from < width) { // lies before a long one, or ends the run
            if (!result.empty()) {
                continue; // belongs to the one before
            }
            if (i < spans.size()) {
                span.node = spans[i++].node;
            }
        }
        if (result.empty() || result.back().node != span.node) {
            result.push_back(span);
        }
    }
    return result;
}

std::vector<PhaseSpan> at_most(std::size_t most, std::vector<PhaseSpan> spans, std::uint64_t end,
                               const PhaseTree& tree) {
    for (std::uint64_t width = 2; spans.size() > std::max<std::size_t>(most, 1); width *= 2) {
        spans = coarser(spans, end, width, tree);
    }
    return spans;
}

// ---------------------------------------------------------------------------------------------

namespace {

class OverTimeWatcher : public Watcher {
public:
    OverTimeWatcher(const History& history, const PhaseTable& table, const OverTime::Limits& limits,
                    OverTime& result)
        : history_(history), table_(table), limits_(limits), result_(result) {}

    void refused(const Event& event) {
        if (result_.refusals.size() < limits_.refusals) {
            result_.refusals.push_back({event.number, event.record.size, event.record.type,
                                        history_.threads().id(event.thread), node_of(event.phase)});
        }
    }

    void seen(const Event& event) {
        result_.curve.add(event.number, history_.held_bytes(), history_.held().size());
        if (event.phase != no_phase && event.thread < limits_.threads) {
            arrive(event);
        }
    }

    // What came last is as coarse then as what came first.
    void finish() {
        const std::uint64_t end = result_.curve.last() + 1;
        for (std::size_t i = 0; i < result_.threads.size(); ++i) {
            std::vector<PhaseSpan>& spans = result_.threads[i].spans;
            if (at_[i].width > 1) {
                spans = coarser(spans, end, at_[i].width, result_.tree);
            }
            spans = at_most(limits_.spans, std::move(spans), end, result_.tree);
        }
    }

private:
    struct At {
        std::uint32_t phase = no_phase;
        std::uint64_t width = 1; // that its spans were made coarser with
    };

    void arrive(const Event& event) {
        if (event.thread >= at_.size()) {
            at_.resize(event.thread + 1);
        }
        At& at = at_[event.thread];
        if (at.phase == event.phase) {
            return;
        }
        at.phase = event.phase;
        while (result_.threads.size() <= event.thread) {
            const auto next = static_cast<std::uint32_t>(result_.threads.size());
            result_.threads.push_back({history_.threads().id(next), {}});
        }
        std::vector<PhaseSpan>& spans = result_.threads[event.thread].spans;
        // Twice as many as wanted, so that most of the time none needs to be taken together.
        while (spans.size() >= 2 * limits_.spans) {
            at.width *= 2;
            spans = coarser(spans, event.number, at.width, result_.tree);
        }
        spans.push_back({event.number, node_of(event.phase)});
    }

    std::uint32_t node_of(std::uint32_t phase) {
        while (nodes_.size() <= phase) {
            const auto next = static_cast<std::uint32_t>(nodes_.size());
            const std::string path = table_.path(history_.phases().id(next));
            nodes_.push_back(static_cast<std::uint32_t>(result_.tree.place(path)));
        }
        return nodes_[phase];
    }

    const History& history_;
    const PhaseTable& table_;
    const OverTime::Limits& limits_;
    OverTime& result_;
    std::vector<At> at_;               // by thread
    std::vector<std::uint32_t> nodes_; // by phase
};

} // namespace

OverTime take_over_time(const std::string& base, const OverTime::Limits& limits, Problems& problems,
                        ByteCounter* counter) {
    const PhaseTable table(base, problems);
    EventReader reader(base, problems, counter);
    OverTime result;
    result.curve = HeldCurve(limits.stretches);
    History history;
    OverTimeWatcher watcher(history, table, limits, result);
    history.replay(reader, watcher);
    history.tell(reader, problems);
    watcher.finish();
    return result;
}

} // namespace memtrack
