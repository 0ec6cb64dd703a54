// Names in formats: see formats.h.
#include "formats.h"

#include <algorithm>

namespace memtrack::exporting {

std::string line_text(std::string_view name, std::string_view reserved, char instead,
                      std::size_t most) {
    std::string text;
    while (!name.empty()) {
        const std::size_t length = utf8_length(name);
        const std::size_t taken = std::max<std::size_t>(length, 1);
        const auto byte = static_cast<unsigned char>(name[0]);
        if (text.size() + taken > most) {
            return text + "...";
        }
        if (length == 0) {
            text += '?';
        } else if (byte < 0x20 || byte == 0x7F) {
            text += ' ';
        } else if (reserved.find(name[0]) != std::string_view::npos) {
            text += instead;
        } else {
            text += name.substr(0, length);
        }
        name.remove_prefix(taken);
    }
    return text;
}

std::string rank_name(const Ranks& ranks, std::size_t rank) {
    return "rank " + std::to_string(rank) + " (" + ranks[rank].base + ")";
}

std::vector<std::string> frames_of(const Ranks& ranks, std::size_t rank, const Share& share) {
    std::vector<std::string> frames;
    if (ranks.size() > 1) {
        frames.push_back(rank_name(ranks, rank));
    }
    const PhaseTree& tree = ranks[rank].tree;
    for (const std::size_t node : nodes_to(tree, ranks[rank].nodes[share.phase])) {
        frames.push_back(tree.nodes()[node].name);
    }
    return frames;
}

} // namespace memtrack::exporting
