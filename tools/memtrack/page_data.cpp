// See page_data.h. The scripts of the page (html/data.js) read this form and no other; both come from one
// build, so it has no version.
#include "page_data.h"

#include "output.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace memtrack {

PageLimits page_limits(std::size_t ranks) {
    const std::size_t share = std::max<std::size_t>(ranks, 1);
    PageLimits limits;
    limits.over_time.stretches = std::bit_floor(std::max<std::size_t>(65536 / share, 32));
    limits.over_time.refusals = std::clamp<std::size_t>(16384 / share, 4, 1000);
    limits.spans = std::clamp<std::size_t>(131072 / share, 32, 65536);
    limits.phases = std::clamp<std::size_t>(16384 / share, 8, 4096);
    limits.threads = std::clamp<std::size_t>(16384 / share, 8, 2048);
    limits.left = limits.over_time.refusals;
    return limits;
}

namespace {

constexpr std::size_t most_problems = 100, longest_name = 200;
constexpr std::uint64_t largest_exact = std::uint64_t{1} << 53; // that a script's numbers hold

// JSON without blanks. "<" occurs in strings alone and is written as an escape there, so that no text of a
// recording can end the script element.
class Packed {
public:
    Packed& open(char bracket) {
        separate();
        text_ += bracket;
        closing_ += bracket == '{' ? '}' : ']';
        return *this;
    }
    Packed& close() {
        text_ += closing_.back();
        closing_.pop_back();
        return *this;
    }
    Packed& key(std::string_view name) {
        string(name);
        text_ += ':';
        return *this;
    }
    Packed& string(std::string_view text) {
        separate();
        for (const char c : json_quoted(text)) {
            if (c == '<') {
                text_ += "\\u003c";
            } else {
                text_ += c;
            }
        }
        return *this;
    }
    /// A string where a script's number would round it.
    Packed& number(std::uint64_t number) {
        separate();
        const std::string digits = std::to_string(number);
        text_ += number > largest_exact ? '"' + digits + '"' : digits;
        return *this;
    }
    Packed& number(std::int64_t number) {
        separate();
        text_ += std::to_string(number);
        return *this;
    }
    Packed& flag(bool flag) {
        separate();
        text_ += flag ? "true" : "false";
        return *this;
    }
    Packed& amount(const Amount& amount) { return number(amount.bytes).number(amount.blocks); }
    const std::string& text() const { return text_; }

private:
    void separate() {
        if (!text_.empty() && std::strchr("[{:", text_.back()) == nullptr) {
            text_ += ',';
        }
    }
    std::string text_, closing_;
};

// Numbers in seven-bit groups, lowest first, as base 64.
class Varints {
public:
    void add(std::uint64_t value) {
        for (; value >= 0x80; value >>= 7) {
            byte(static_cast<std::uint8_t>(value | 0x80));
        }
        byte(static_cast<std::uint8_t>(value));
    }
    /// The difference from the value before, with its sign in the lowest bit.
    void add_step(std::uint64_t value, std::uint64_t& before) {
        value = std::min(value, largest_exact / 4);
        add(value >= before ? 2 * (value - before) : 2 * (before - value) - 1);
        before = value;
    }
    std::string base64() {
        static const char digits[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        const std::size_t size = bytes_.size();
        bytes_.resize((size + 2) / 3 * 3);
        std::string text;
        text.reserve(bytes_.size() / 3 * 4);
        for (std::size_t i = 0; i < bytes_.size(); i += 3) {
            const unsigned three = static_cast<unsigned>(bytes_[i]) << 16 |
                                   static_cast<unsigned>(bytes_[i + 1]) << 8 | bytes_[i + 2];
            for (const unsigned shift : {18U, 12U, 6U, 0U}) {
                text += digits[three >> shift & 63];
            }
        }
        for (std::size_t i = 0; i < (3 - size % 3) % 3; ++i) {
            text[text.size() - 1 - i] = '=';
        }
        return text;
    }

private:
    void byte(std::uint8_t value) { bytes_.push_back(value); }
    std::vector<std::uint8_t> bytes_;
};

// ---------------------------------------------------------------------------------------------

/// What the page tells of a phase by itself; what is below it, the page's scripts add.
struct PagePhase {
    std::string name;
    std::size_t parent = PhaseNode::none;
    ShareFigures own;
    std::uint64_t entries = 0, peak_within = 0;
};

/// The phases of a run that the page shows, and which of them stands for a path.
class PagePhases {
public:
    PagePhases(const Figures& figures, PhaseTree tree, std::size_t most) : tree_(std::move(tree)) {
        for (const PhaseFigures& phase : figures.phases) {
            tree_.place(phase.path);
        }
        choose(most);
        for (const PhaseFigures& phase : figures.phases) {
            ShareFigures& own = phases_[node(phase.path)].own;
            const std::uint64_t high = std::max(own.high, phase.high);
            own += phase;
            own.high = high; // the highest of several phases that one stands for, not their sum
        }
    }

    const std::vector<PagePhase>& phases() const { return phases_; }
    /// Of a path that is in the figures, as all of the run are, or above one.
    std::size_t node(const std::string& path) { return nodes_.at(tree_.place(path)); }

private:
    // Those under which most was allocated, so that parents are chosen before their children.
    void choose(std::size_t most) {
        const std::vector<PhaseNode>& nodes = tree_.nodes();
        std::vector<std::size_t> order(nodes.size());
        for (std::size_t i = 0; i < order.size(); ++i) {
            order[i] = i;
        }
        std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
            return nodes[a].inclusive.allocated.bytes > nodes[b].inclusive.allocated.bytes;
        });
        std::vector<bool> chosen(nodes.size());
        for (std::size_t i = 0; i < std::min(most, order.size()); ++i) {
            chosen[order[i]] = true;
        }
        nodes_.resize(nodes.size());
        for (std::size_t i = 0; i < nodes.size(); ++i) {
            const std::size_t parent =
                nodes[i].parent == PhaseNode::none ? PhaseNode::none : nodes_[nodes[i].parent];
            nodes_[i] = chosen[i] ? append(nodes[i].name, parent) : others(parent);
            PagePhase& phase = phases_[nodes_[i]];
            phase.entries += nodes[i].entries;
            phase.peak_within = std::max(phase.peak_within, nodes[i].peak_within);
        }
    }
    std::size_t append(const std::string& name, std::size_t parent) {
        PagePhase& phase = phases_.emplace_back();
        phase.name = name.size() <= longest_name ? name : name.substr(0, longest_name) + "...";
        phase.parent = parent;
        others_.push_back(PhaseNode::none);
        is_others_.push_back(false);
        return phases_.size() - 1;
    }
    // What stands for the phases below `parent` that are not shown; for what is below them as well.
    std::size_t others(std::size_t parent) {
        if (parent != PhaseNode::none && is_others_[parent]) {
            return parent;
        }
        std::size_t& there = parent == PhaseNode::none ? others_of_all_ : others_[parent];
        if (there == PhaseNode::none) {
            const std::size_t made = append("(other phases)", parent);
            is_others_[made] = true;
            return (parent == PhaseNode::none ? others_of_all_ : others_[parent]) = made;
        }
        return there;
    }

    PhaseTree tree_;
    std::vector<std::size_t> nodes_; // place in phases_ by node of tree_
    std::vector<PagePhase> phases_;
    std::vector<std::size_t> others_;
    std::vector<bool> is_others_;
    std::size_t others_of_all_ = PhaseNode::none;
};

// ---------------------------------------------------------------------------------------------

template <class Items, class Get>
void write_column(Packed& data, std::string_view name, const Items& items, const Get& get) {
    data.key(name).open('[');
    for (const auto& item : items) {
        data.number(get(item));
    }
    data.close();
}

template <class Items, class Share>
void write_shares(Packed& data, const Items& items, const Share& share) {
    const auto column = [&](std::string_view name, auto get) {
        write_column(data, name, items,
                     [&](const auto& item) -> std::uint64_t { return get(share(item)); });
    };
    using Figure = const ShareFigures&;
    column("events", [](Figure f) { return f.events; });
    column("allocatedBytes", [](Figure f) { return f.allocated.bytes; });
    column("allocatedBlocks", [](Figure f) { return f.allocated.blocks; });
    column("temporary", [](Figure f) { return f.temporary; });
    column("failed", [](Figure f) { return f.failed; });
    column("peakBytes", [](Figure f) { return f.at_peak.bytes; });
    column("peakBlocks", [](Figure f) { return f.at_peak.blocks; });
    column("leftBytes", [](Figure f) { return f.left.bytes; });
    column("leftBlocks", [](Figure f) { return f.left.blocks; });
    column("high", [](Figure f) { return f.high; });
}

void write_phases(Packed& data, const std::vector<PagePhase>& phases) {
    data.key("phases").open('{');
    data.key("name").open('[');
    for (const PagePhase& phase : phases) {
        data.string(phase.name);
    }
    data.close();
    write_column(data, "parent", phases, [](const PagePhase& phase) {
        return phase.parent == PhaseNode::none ? std::int64_t{-1}
                                               : static_cast<std::int64_t>(phase.parent);
    });
    write_shares(data, phases,
                 [](const PagePhase& phase) -> const ShareFigures& { return phase.own; });
    write_column(data, "entries", phases, [](const PagePhase& phase) { return phase.entries; });
    write_column(data, "peakWithin", phases,
                 [](const PagePhase& phase) { return phase.peak_within; });
    data.close();
}

void write_threads(Packed& data, const Figures& figures, std::size_t most) {
    std::vector<const ThreadFigures*> threads;
    for (const ThreadFigures& thread : figures.threads) {
        threads.push_back(&thread);
    }
    if (threads.size() > most) {
        std::stable_sort(threads.begin(), threads.end(),
                         [](const auto* a, const auto* b) { return a->events > b->events; });
        threads.resize(most);
    }
    data.key("threadCount").number(std::uint64_t{figures.threads.size()});
    data.key("threads").open('{');
    write_column(data, "thread", threads,
                 [](const auto* thread) { return std::int64_t{thread->thread}; });
    write_shares(data, threads, [](const auto* thread) -> const ShareFigures& { return *thread; });
    write_column(data, "released", threads, [](const auto* thread) { return thread->released; });
    write_column(data, "releasedForeign", threads,
                 [](const auto* thread) { return thread->released_foreign; });
    data.close();
}

void write_figures(Packed& data, const Figures& figures, bool merged, PagePhases& phases) {
    data.key("base").string(figures.base);
    data.key("complete").flag(figures.complete);
    data.key("files").number(std::int64_t{figures.files});
    data.key("events").number(figures.events);
    data.key("byType").open('{');
    for (std::size_t i = 0; i < type_count; ++i) {
        data.key(type_name(static_cast<Type>(i))).number(figures.by_type[i]);
    }
    data.close();
    data.key("allocated").open('[').amount(figures.allocated).close();
    data.key("peak").open('[').amount(figures.peak).close();
    data.key("left").open('[').amount(figures.left).close();
    if (!merged && figures.peak.blocks != 0) {
        const Figures::PeakEvent& at = figures.peak_event;
        data.key("peakEvent").open('[').number(at.number).string(type_name(at.type));
        data.number(at.size).number(std::int64_t{at.thread});
        data.number(std::uint64_t{phases.node(at.phase)}).close();
    }
    data.key("temporary").number(figures.temporary);
    data.key("failed").number(figures.failed);
    data.key("unknownReleases").number(figures.unknown_releases);
    data.key("lostReleases").number(figures.lost_releases);
    data.key("phaseCount").number(std::uint64_t{figures.phases.size()});
    data.key("sizes").open('['); // bucket, blocks, bytes, flat
    for (std::size_t i = 0; i < SizeFigures::buckets; ++i) {
        if (const Amount& bucket = figures.sizes.requests[i]; bucket.blocks != 0) {
            data.number(std::uint64_t{i}).number(bucket.blocks).number(bucket.bytes);
        }
    }
    data.close();
}

void write_curve(Packed& data, const HeldCurve& curve) {
    Varints values;
    std::uint64_t bytes = 0, blocks = 0;
    for (const HeldCurve::Stretch& stretch : curve.stretches()) {
        values.add_step(stretch.bytes.high, bytes);
        values.add(std::min(stretch.bytes.high, largest_exact / 4) -
                   std::min(stretch.bytes.low, largest_exact / 4));
        values.add_step(stretch.blocks.high, blocks);
        values.add(stretch.blocks.high - stretch.blocks.low);
    }
    data.key("curve").open('{');
    data.key("first").number(curve.first()).key("last").number(curve.last());
    data.key("width").number(curve.width());
    data.key("count").number(std::uint64_t{curve.stretches().size()});
    data.key("values").string(values.base64()).close();
}

void write_spans(Packed& data, const OverTime& over_time, std::size_t most, PagePhases& phases) {
    const std::size_t share =
        std::max<std::size_t>(most / std::max<std::size_t>(over_time.threads.size(), 1), 1);
    std::vector<std::size_t> nodes;
    for (std::size_t i = 0; i < over_time.tree.nodes().size(); ++i) {
        nodes.push_back(phases.node(over_time.tree.path(i)));
    }
    data.key("spans").open('[');
    for (const OverTime::Thread& thread : over_time.threads) {
        if (thread.spans.empty()) { // it only freed, so its phases are not known
            continue;
        }
        Varints values;
        std::uint64_t before = 0;
        for (const PhaseSpan& span :
             at_most(share, thread.spans, over_time.curve.last() + 1, over_time.tree)) {
            values.add(span.from - before);
            values.add(span.node == PhaseSpan::several ? 0 : nodes[span.node] + 1);
            before = span.from;
        }
        data.open('[').number(std::int64_t{thread.thread}).string(values.base64()).close();
    }
    data.close();
}

void write_lists(Packed& data, const PageRun& run, PagePhases& phases) {
    data.key("refusals").open('[');
    for (const Refusal& refusal : run.over_time.refusals) {
        data.open('[').number(refusal.number).string(type_name(refusal.type)).number(refusal.size);
        data.number(std::int64_t{refusal.thread});
        data.number(std::uint64_t{phases.node(run.over_time.tree.path(refusal.node))}).close();
    }
    data.close().key("leftBlocks").open('[');
    for (const LeftBlock& block : run.left) {
        data.open('[').number(block.number).string(address_text(block.address)).number(block.size);
        data.number(std::int64_t{block.thread});
        data.number(std::uint64_t{phases.node(block.phase)}).close();
    }
    data.close();
}

void write_run(Packed& data, const PageRun& run, const PageLimits& limits) {
    PagePhases phases(run.figures, run.tree, limits.phases);
    data.open('{');
    write_figures(data, run.figures, false, phases);
    write_curve(data, run.over_time.curve);
    write_spans(data, run.over_time, limits.spans, phases);
    write_lists(data, run, phases);
    write_threads(data, run.figures, limits.threads);
    write_phases(data, phases.phases());
    data.close();
}

void write_merged(Packed& data, const std::vector<PageRun>& runs) {
    std::vector<Figures> ranks;
    PhaseTree tree;
    for (const PageRun& run : runs) {
        ranks.push_back(run.figures);
        tree.merge(run.tree);
    }
    const PageLimits limits = page_limits(1);
    const Figures figures = merge(ranks);
    PagePhases phases(figures, std::move(tree), limits.phases);
    data.key("merged").open('{');
    write_figures(data, figures, true, phases);
    write_threads(data, figures, limits.threads);
    write_phases(data, phases.phases());
    data.close();
}

} // namespace

std::string page_data(const std::vector<PageRun>& runs, const Problems& problems) {
    Packed data;
    data.open('{').key("program").string("memtrack " MEMTRACK_VERSION);
    data.key("problemCount").number(std::uint64_t{problems.size()});
    data.key("problems").open('[');
    for (std::size_t i = 0; i < std::min(problems.size(), most_problems); ++i) {
        data.string(problems[i].sentence());
    }
    data.close();
    if (runs.size() > 1) {
        write_merged(data, runs);
    }
    const PageLimits limits = page_limits(runs.size());
    data.key("runs").open('[');
    for (const PageRun& run : runs) {
        write_run(data, run, limits);
    }
    return data.close().close().text();
}

} // namespace memtrack
