// See lists.h.
#include "lists.h"

#include <algorithm>
#include <cinttypes>

namespace memtrack {

std::vector<HeldBlock> largest_blocks(const History& history, const PhaseTable& table,
                                      std::size_t most) {
    const auto before = [](const Block& a, const Block& b) {
        return a.size != b.size ? a.size > b.size : a.number < b.number;
    };
    // A heap of the best so far, the least of them in front.
    std::vector<Block> best;
    history.held().for_each([&](const Block& block) {
        if (best.size() < most) {
            best.push_back(block);
            std::push_heap(best.begin(), best.end(), before);
        } else if (most != 0 && before(block, best.front())) {
            std::pop_heap(best.begin(), best.end(), before);
            best.back() = block;
            std::push_heap(best.begin(), best.end(), before);
        }
    });
    std::sort_heap(best.begin(), best.end(), before);
    const std::vector<std::string> paths = history.phase_paths(table);
    std::vector<HeldBlock> result;
    for (const Block& block : best) {
        result.push_back({block.address, block.size, block.number,
                          history.threads().id(block.thread), paths[block.phase]});
    }
    return result;
}

std::vector<const PhaseFigures*> by_amount(const Figures& figures, ShareAmount amount) {
    std::vector<const PhaseFigures*> order;
    for (const PhaseFigures& phase : figures.phases) {
        if ((phase.*amount).blocks != 0) {
            order.push_back(&phase);
        }
    }
    std::stable_sort(order.begin(), order.end(),
                     [amount](const PhaseFigures* a, const PhaseFigures* b) {
                         return (a->*amount).bytes > (b->*amount).bytes;
                     });
    return order;
}

void write_phase_list(Output& output, const CommonOptions& options, const Figures& figures,
                      ShareAmount amount, std::uint64_t whole) {
    const auto order = by_amount(figures, amount);
    const std::size_t shown = rows_shown(options, order.size());
    for (std::size_t i = 0; i < shown; ++i) {
        const Amount& of = order[i]->*amount;
        output.print("  %12s %8s %12s block%-1s  %s\n", human_bytes(of.bytes).c_str(),
                     percent(of.bytes, whole).c_str(), grouped(of.blocks).c_str(),
                     plural(of.blocks), order[i]->path.c_str());
    }
    write_rest(output, shown, order.size());
}

void write_phase_list(Json& json, const CommonOptions& options, const Figures& figures,
                      ShareAmount amount) {
    const auto order = by_amount(figures, amount);
    json.array();
    for (std::size_t i = 0; i < rows_shown(options, order.size()); ++i) {
        const Amount& of = order[i]->*amount;
        json.compact().object().member("phase", order[i]->path);
        json.member("bytes", of.bytes).member("blocks", of.blocks).end();
    }
    json.end();
}

void write_blocks(Output& output, const std::vector<HeldBlock>& blocks, std::size_t of) {
    for (const HeldBlock& block : blocks) {
        output.print("  %12s at %s  made by event %" PRIu64 ", thread %" PRId32 ", %s\n",
                     human_bytes(block.size).c_str(), address_text(block.address).c_str(),
                     block.number, block.thread, block.phase.c_str());
    }
    write_rest(output, blocks.size(), of);
}

void write_blocks(Json& json, const std::vector<HeldBlock>& blocks) {
    json.array();
    for (const HeldBlock& block : blocks) {
        json.compact().object().member("address", address_text(block.address));
        json.member("bytes", block.size).member("event", block.number);
        json.member("thread", block.thread).member("phase", block.phase).end();
    }
    json.end();
}

void write_amount(Json& json, std::string_view name, const Amount& amount) {
    json.key(name).compact().object();
    json.member("bytes", amount.bytes).member("blocks", amount.blocks).end();
}

std::string amount_text(const Amount& amount) {
    std::string text = human_bytes(amount.bytes);
    if (amount.bytes >= 1024) {
        text += " (" + grouped(amount.bytes) + " bytes)";
    }
    return text + " in " + grouped(amount.blocks) + " block" + plural(amount.blocks);
}

void write_peak_line(Output& output, const std::vector<Figures>& ranks, const Figures& merged) {
    output.print("Peak: %s", amount_text(merged.peak).c_str());
    if (ranks.size() > 1) {
        output.print(", the sum of the ranks' peaks, which need not be at one time\n");
    } else if (merged.peak.blocks != 0) {
        const Figures::PeakEvent& at = merged.peak_event;
        output.print(", at event %" PRIu64 "\n      (%s of %s, thread %" PRId32 ", %s)\n",
                     at.number, type_name(at.type), human_bytes(at.size).c_str(), at.thread,
                     at.phase.c_str());
    } else {
        output.print("\n");
    }
}

void write_incomplete(Output& output, const Problems& problems) {
    if (problems.empty()) {
        return;
    }
    output.print("INCOMPLETE: %zu problem%s with the files, told on standard error. Figures are of what could be "
                 "read.\n\n",
                 problems.size(), plural(problems.size()));
}

} // namespace memtrack
