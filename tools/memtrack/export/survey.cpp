// See survey.h.
#include "survey.h"

#include <algorithm>

namespace memtrack::exporting {
namespace {

constexpr std::size_t most_slices = 20000;

// When threads were in which phases, as their events tell: a phase that a thread is in is known by events
// other than releases. Slices are kept as long as they are few; then short ones go.
class SliceKeeper {
public:
    SliceKeeper(Survey& survey, const PhaseTable& table) : survey_(survey), table_(table) {}

    void add(const Event& event) {
        if (event.phase == no_phase) {
            return;
        }
        if (event.thread >= threads_.size()) {
            threads_.resize(event.thread + 1);
        }
        Thread& thread = threads_[event.thread];
        if (thread.phase != event.phase) {
            thread.phase = event.phase;
            change(thread, event);
        }
    }

    void finish() {
        for (std::uint32_t i = 0; i < threads_.size(); ++i) {
            close(threads_[i], i, 0, survey_.end);
        }
    }

private:
    struct Open {
        std::size_t node;
        std::uint64_t begin;
    };
    struct Thread {
        std::uint32_t phase = no_phase;
        std::vector<Open> open;
    };

    const std::vector<std::size_t>& nodes_of(const Event& event) {
        if (event.phase >= nodes_.size()) {
            nodes_.resize(event.phase + 1);
        }
        std::vector<std::size_t>& nodes = nodes_[event.phase];
        if (nodes.empty() && event.record.stack >= 0) {
            nodes = nodes_to(survey_.tree, survey_.tree.place(table_.path(event.record.stack)));
        }
        return nodes;
    }

    void change(Thread& thread, const Event& event) {
        const std::vector<std::size_t>& nodes = nodes_of(event);
        std::size_t common = 0;
        while (common < std::min(nodes.size(), thread.open.size()) &&
               nodes[common] == thread.open[common].node) {
            ++common;
        }
        close(thread, event.thread, common, event.number);
        for (std::size_t i = common; i < nodes.size(); ++i) {
            thread.open.push_back({nodes[i], event.number});
        }
    }

    void close(Thread& thread, std::uint32_t number, std::size_t depth, std::uint64_t now) {
        for (; thread.open.size() > depth; thread.open.pop_back()) {
            const Open& open = thread.open.back();
            if (now - open.begin < survey_.shortest_slice) {
                ++survey_.slices_left_out;
                continue;
            }
            survey_.slices.push_back({open.begin, now, open.node, number});
            while (survey_.slices.size() > most_slices) {
                leave_out_short();
            }
        }
    }

    void leave_out_short() {
        survey_.shortest_slice *= 2;
        survey_.slices_left_out += std::erase_if(survey_.slices, [&](const Slice& slice) {
            return slice.end - slice.begin < survey_.shortest_slice;
        });
    }

    Survey& survey_;
    const PhaseTable& table_;
    std::vector<Thread> threads_;
    std::vector<std::vector<std::size_t>> nodes_; // by phase
};

class SurveyWatcher : public Watcher {
public:
    SurveyWatcher(Survey& survey, const PhaseTable& table)
        : survey_(survey), slices_(survey, table) {}

    void made(const Event&, const Block& block) {
        survey_.allocated.add(block.size);
        survey_.left.add(block.size);
        enter(of_phase(block), block);
        enter(of_thread(block), block);
    }
    void gone(const Event& event, const Block& block, Gone) {
        survey_.left.remove(block.size);
        leave(survey_.by_phase[block.phase], block, event.number);
        leave(of_thread(block), block, event.number);
    }
    void peaked(const Event&) { ++peaks_; }
    void seen(const Event& event) {
        curve_.add(event.number, survey_.left);
        survey_.end = event.number + 1;
        slices_.add(event);
    }

    void finish(const History& history) {
        slices_.finish();
        survey_.curve = curve_.points();
        survey_.by_phase.resize(history.phases().size());
        for (std::uint32_t i = 0; i < survey_.by_phase.size(); ++i) {
            survey_.by_phase[i].phase = i;
        }
        history.held().for_each([&](const Block& block) {
            survey_.by_phase[block.phase].lifetimes += survey_.end - block.number;
            of_thread(block).lifetimes += survey_.end - block.number;
        });
        for (auto* const shares : {&survey_.by_phase, &survey_.by_phase_thread}) {
            for (Share& share : *shares) {
                set_aside(share);
            }
        }
    }

private:
    // What it holds is what it held at the peak, if it has not changed since: so this comes before a change.
    void set_aside(Share& share) const {
        if (share.peaks != peaks_) {
            share.peaks = peaks_;
            share.at_peak = share.held;
        }
    }
    void enter(Share& share, const Block& block) const {
        set_aside(share);
        share.allocated.add(block.size);
        share.held.add(block.size);
        if (share.held.bytes > share.high.bytes) {
            share.high = share.held;
        }
    }
    void leave(Share& share, const Block& block, std::uint64_t now) const {
        set_aside(share);
        share.held.remove(block.size);
        share.lifetimes += now - block.number;
    }

    Share& of_phase(const Block& block) {
        if (block.phase >= survey_.by_phase.size()) {
            survey_.by_phase.resize(block.phase + 1);
        }
        return survey_.by_phase[block.phase];
    }
    Share& of_thread(const Block& block) {
        constexpr std::uint32_t none = ~std::uint32_t{0};
        if (block.thread >= places_.size()) {
            places_.resize(block.thread + 1);
        }
        std::vector<std::uint32_t>& places = places_[block.thread];
        if (block.phase >= places.size()) {
            places.resize(block.phase + 1, none);
        }
        std::uint32_t& place = places[block.phase];
        if (place == none) {
            place = static_cast<std::uint32_t>(survey_.by_phase_thread.size());
            Share& share = survey_.by_phase_thread.emplace_back();
            share.phase = block.phase;
            share.thread = block.thread;
        }
        return survey_.by_phase_thread[place];
    }

    Survey& survey_;
    SliceKeeper slices_;
    Curve curve_;
    std::vector<std::vector<std::uint32_t>> places_; // in by_phase_thread, by thread and phase
    std::uint64_t peaks_ = 0;
};

} // namespace

std::vector<std::size_t> nodes_to(const PhaseTree& tree, std::size_t node) {
    std::vector<std::size_t> nodes;
    for (; node != PhaseNode::none; node = tree.nodes()[node].parent) {
        nodes.push_back(node);
    }
    std::reverse(nodes.begin(), nodes.end());
    return nodes;
}

Survey take_survey(const std::string& base, Problems& problems, ByteCounter* counter) {
    Survey survey;
    survey.base = base;
    const PhaseTable table(base, problems);
    EventReader reader(base, problems, counter);
    History history;
    SurveyWatcher watcher(survey, table);
    history.replay(reader, watcher);
    history.tell(reader, problems);
    watcher.finish(history);
    survey.events = history.events();
    survey.peak = history.peak();
    survey.phases = history.phase_paths(table);
    for (const std::string& path : survey.phases) {
        survey.nodes.push_back(survey.tree.place(path));
    }
    for (std::uint32_t i = 0; i < history.threads().size(); ++i) {
        survey.threads.push_back(history.threads().id(i));
    }
    return survey;
}

} // namespace memtrack::exporting
