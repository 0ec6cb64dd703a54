// The format of massif, for ms_print and massif-visualizer: the curve, and what was held at the peak and at the
// end as a tree of the phases, from the root on. Time is the number of the event, and called `i`, which the viewers
// know. A reader takes what is behind a "#" for a comment.
#include "formats.h"

#include <algorithm>
#include <cinttypes>

namespace memtrack::exporting {
namespace {

constexpr std::size_t longest_name = 1000; // a viewer takes lines below 4096 bytes
constexpr double threshold = 0.01;

std::string name_text(std::string_view name) {
    return line_text(name, "#", '_', longest_name);
}

class TreeWriter {
public:
    TreeWriter(Output& output, const Survey& run, ShareAmount amount)
        : output_(output), nodes_(run.tree.nodes()), own_(nodes_.size()), all_(nodes_.size()) {
        for (const Share& share : run.by_phase) {
            own_[run.nodes[share.phase]] += (share.*amount).bytes;
        }
        all_ = own_;
        for (std::size_t i = nodes_.size(); i-- > 0;) { // parents stand before children
            if (nodes_[i].parent != PhaseNode::none) {
                all_[nodes_[i].parent] += all_[i];
            }
        }
        for (const std::size_t root : run.tree.roots()) {
            total_ += all_[root];
        }
        write(1, "(heap allocation functions) malloc/new/new[], --alloc-fns, etc.", total_,
              run.tree.roots(), 0);
    }

private:
    struct Part {
        std::uint64_t bytes;
        std::size_t node; // PhaseNode::none: what the phase above holds itself
    };

    void line(std::size_t depth, std::size_t children, std::uint64_t bytes,
              const std::string& label) {
        output_.print("%*sn%zu: %" PRIu64 " %s\n", static_cast<int>(depth - 1), "", children, bytes,
                      label.c_str());
    }

    void write(std::size_t depth, const std::string& label, std::uint64_t bytes,
               const std::vector<std::size_t>& children, std::uint64_t own) {
        std::vector<Part> parts;
        std::uint64_t small_bytes = 0;
        std::size_t small = 0;
        const auto add = [&](std::uint64_t part, std::size_t node) {
            if (static_cast<double>(part) < threshold * static_cast<double>(total_)) {
                small += part != 0 ? 1U : 0U;
                small_bytes += part;
            } else if (part != 0) {
                parts.push_back({part, node});
            }
        };
        for (const std::size_t child : children) {
            add(all_[child], child);
        }
        if (!parts.empty() || small != 0) { // else it is a leaf
            add(own, PhaseNode::none);
        }
        std::stable_sort(parts.begin(), parts.end(),
                         [](const Part& a, const Part& b) { return a.bytes > b.bytes; });
        line(depth, parts.size() + (small != 0 ? 1 : 0), bytes, label);
        for (const Part& part : parts) {
            if (part.node == PhaseNode::none) {
                line(depth + 1, 0, part.bytes, label + " itself");
            } else {
                write(depth + 1, name_text(nodes_[part.node].name), part.bytes,
                      nodes_[part.node].children, own_[part.node]);
            }
        }
        if (small != 0) {
            line(depth + 1, 0, small_bytes,
                 "in " + std::to_string(small) + " place" + plural(small) +
                     ", all below massif's threshold (1.00%)");
        }
    }

    Output& output_;
    const std::vector<PhaseNode>& nodes_;
    std::vector<std::uint64_t> own_, all_; // by node
    std::uint64_t total_ = 0;
};

} // namespace

void write_massif(Output& output, const Survey& run) {
    output.print("desc: memtrack, by phase\ncmd: %s\ntime_unit: i\n", name_text(run.base).c_str());
    std::vector<CurvePoint> points = run.curve;
    if (points.empty() || points.front().number != 0) {
        points.insert(points.begin(), CurvePoint{});
    }
    const auto peak = std::max_element(
        points.begin(), points.end(),
        [](const CurvePoint& a, const CurvePoint& b) { return a.held.bytes < b.held.bytes; });
    for (auto point = points.begin(); point != points.end(); ++point) {
        output.print("#-----------\nsnapshot=%zu\n#-----------\ntime=%" PRIu64
                     "\nmem_heap_B=%" PRIu64 "\nmem_heap_extra_B=0\nmem_stacks_B=0\nheap_tree=",
                     static_cast<std::size_t>(point - points.begin()), point->number,
                     point->held.bytes);
        if (point == peak) {
            output.write("peak\n");
            TreeWriter(output, run, &Share::at_peak);
        } else if (point + 1 == points.end() && point->held.bytes != 0) {
            output.write("detailed\n");
            TreeWriter(output, run, &Share::held);
        } else {
            output.write("empty\n");
        }
    }
}

} // namespace memtrack::exporting
