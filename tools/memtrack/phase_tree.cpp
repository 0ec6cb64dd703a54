// See phase_tree.h.
#include "phase_tree.h"

#include <algorithm>

namespace memtrack {

std::size_t PhaseTree::child(std::size_t parent, const std::string& name) {
    const auto [place, fresh] = index_.try_emplace({parent, name}, nodes_.size());
    if (fresh) {
        PhaseNode& node = nodes_.emplace_back();
        node.name = name;
        node.parent = parent;
        (parent == PhaseNode::none ? roots_ : nodes_[parent].children).push_back(place->second);
    }
    return place->second;
}

std::size_t PhaseTree::place(const std::string& path) {
    std::size_t node = PhaseNode::none, begin = 0;
    for (std::size_t depth = 1;; ++depth) {
        const std::size_t end = depth == most_depth ? std::string::npos : path.find("->", begin);
        node = child(node, path.substr(begin, end - begin));
        if (end == std::string::npos) {
            return node;
        }
        begin = end + 2;
    }
}

std::string PhaseTree::path(std::size_t node) const {
    std::string path = nodes_[node].name;
    for (node = nodes_[node].parent; node != PhaseNode::none; node = nodes_[node].parent) {
        path.insert(0, nodes_[node].name + "->");
    }
    return path;
}

void PhaseTree::merge(const PhaseTree& other) {
    const auto add = [](PhaseNode::Of& sum, const PhaseNode::Of& more) {
        sum.allocated += more.allocated;
        sum.held += more.held;
        sum.high += more.high;
        sum.at_exit += more.at_exit;
    };
    std::vector<std::size_t> mine;
    for (const PhaseNode& theirs : other.nodes_) {
        const std::size_t parent =
            theirs.parent == PhaseNode::none ? PhaseNode::none : mine[theirs.parent];
        mine.push_back(child(parent, theirs.name));
        PhaseNode& node = nodes_[mine.back()];
        add(node.own, theirs.own);
        add(node.inclusive, theirs.inclusive);
        node.events += theirs.events;
        node.inclusive_events += theirs.inclusive_events;
        node.entries += theirs.entries;
        node.held_at_entry += theirs.held_at_entry;
        node.peak_within += theirs.peak_within;
    }
}

// ---------------------------------------------------------------------------------------------

class PhaseTreeWatcher : public Watcher {
public:
    PhaseTreeWatcher(const History& history, const PhaseTable& table, PhaseTree& tree)
        : history_(history), table_(table), tree_(tree) {}

    void made(const Event& event, const Block& block) {
        arrive(event);
        held_ += block.size;
        const std::size_t own = node_of(block.phase);
        PhaseNode::Of& of = tree_.nodes_[own].own;
        of.allocated.add(block.size);
        enter(of, block);
        for (std::size_t node = own; node != PhaseNode::none; node = tree_.nodes_[node].parent) {
            enter(tree_.nodes_[node].inclusive, block);
        }
        note_held(own);
    }

    void gone(const Event& event, const Block& block, Gone) {
        arrive(event);
        held_ -= block.size;
        const std::size_t own = node_of(block.phase);
        tree_.nodes_[own].own.held.remove(block.size);
        for (std::size_t node = own; node != PhaseNode::none; node = tree_.nodes_[node].parent) {
            tree_.nodes_[node].inclusive.held.remove(block.size);
        }
    }

    void seen(const Event& event) {
        arrive(event);
        if (event.phase != no_phase) {
            ++tree_.nodes_[node_of(event.phase)].events;
        }
    }

    void finish() {
        for (const std::size_t node : current_) {
            leave(node, PhaseNode::none);
        }
        std::vector<PhaseNode>& nodes = tree_.nodes_;
        for (PhaseNode& node : nodes) {
            node.inclusive.allocated = node.own.allocated;
            node.inclusive_events = node.events;
        }
        for (std::size_t i = nodes.size(); i-- > 0;) { // children first
            if (nodes[i].parent != PhaseNode::none) {
                PhaseNode& parent = nodes[nodes[i].parent];
                parent.inclusive.allocated += nodes[i].inclusive.allocated;
                parent.inclusive_events += nodes[i].inclusive_events;
            }
        }
    }

private:
    static void enter(PhaseNode::Of& of, const Block& block) {
        of.held.add(block.size);
        of.high = std::max(of.high, of.held.bytes);
    }

    std::size_t node_of(std::uint32_t phase) {
        while (phase >= places_.size()) {
            const auto next = static_cast<std::uint32_t>(places_.size());
            places_.push_back(tree_.place(table_.path(history_.phases().id(next))));
        }
        return places_[phase];
    }

    // Where the event's thread is now. To be called before the event changes anything.
    void arrive(const Event& event) {
        if (event.phase == no_phase) {
            return;
        }
        if (event.thread >= current_.size()) {
            current_.resize(event.thread + 1, PhaseNode::none);
        }
        const std::size_t to = node_of(event.phase);
        const std::size_t from = current_[event.thread];
        note_held(to);
        if (to == from) {
            return;
        }
        current_[event.thread] = to;
        // What is above both stays; depths tell where the two paths meet.
        std::size_t meet = from, other = to;
        while (meet != other) {
            if (depth(meet) >= depth(other)) {
                meet = tree_.nodes_[meet].parent;
            } else {
                other = tree_.nodes_[other].parent;
            }
        }
        leave(from, meet);
        for (std::size_t node = to; node != meet; node = tree_.nodes_[node].parent) {
            PhaseNode& entered = tree_.nodes_[node];
            if (entered.entries++ == 0) {
                entered.first_event = event.number;
                entered.held_at_entry = held_;
            }
        }
    }

    // What the run holds now counts for the phase and all above it. Nothing above has seen less than what
    // is below it, so the way up ends at the first that has seen as much.
    void note_held(std::size_t node) {
        for (; node != PhaseNode::none && tree_.nodes_[node].peak_within < held_;
             node = tree_.nodes_[node].parent) {
            tree_.nodes_[node].peak_within = held_;
        }
    }

    void leave(std::size_t from, std::size_t as_far_as) {
        for (std::size_t node = from; node != as_far_as; node = tree_.nodes_[node].parent) {
            PhaseNode& left = tree_.nodes_[node];
            left.own.at_exit = left.own.held;
            left.inclusive.at_exit = left.inclusive.held;
        }
    }

    // From 1 for roots; 0 for none.
    std::size_t depth(std::size_t node) {
        if (node == PhaseNode::none) {
            return 0;
        }
        for (std::size_t next = depths_.size(); next <= node; ++next) {
            const std::size_t parent = tree_.nodes_[next].parent;
            depths_.push_back(parent == PhaseNode::none ? 1 : depths_[parent] + 1);
        }
        return depths_[node];
    }

    const History& history_;
    const PhaseTable& table_;
    PhaseTree& tree_;
    std::vector<std::size_t> places_;  // node by phase
    std::vector<std::size_t> current_; // node by thread
    std::vector<std::size_t> depths_;  // by node
    std::uint64_t held_ = 0;
};

PhaseTree take_phase_tree(const std::string& base, Problems& problems, ByteCounter* counter) {
    const PhaseTable table(base, problems);
    EventReader reader(base, problems, counter);
    PhaseTree tree;
    History history;
    PhaseTreeWatcher watcher(history, table, tree);
    history.replay(reader, watcher);
    history.tell(reader, problems);
    watcher.finish();
    return tree;
}

} // namespace memtrack
