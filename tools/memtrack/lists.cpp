// See lists.h.
#include "lists.h"

#include "metrics.h"

#include <algorithm>
#include <cinttypes>

namespace memtrack {

namespace {

constexpr auto larger = [](const auto& a, const auto& b) {
    return a.size != b.size ? a.size > b.size : a.number < b.number;
};

struct Range { // of a bucket of sizes
    std::uint64_t from, to;
};
Range bucket_range(std::size_t bucket) {
    if (bucket == 0) {
        return {0, 0};
    }
    const std::uint64_t from = std::uint64_t{1} << (bucket - 1);
    return {from, from + (from - 1)};
}

} // namespace

std::vector<HeldBlock> largest_blocks(const std::string& base, const History& history,
                                      const PhaseTable& table, std::size_t most) {
    // A heap of the best so far, the least of them in front.
    std::vector<Block> best;
    history.held().for_each([&](const Block& block) {
        if (best.size() < most) {
            best.push_back(block);
            std::push_heap(best.begin(), best.end(), larger);
        } else if (larger(block, best.front())) {
            std::pop_heap(best.begin(), best.end(), larger);
            best.back() = block;
            std::push_heap(best.begin(), best.end(), larger);
        }
    });
    std::sort_heap(best.begin(), best.end(), larger);
    const std::vector<std::string> paths = history.phase_paths(table);
    std::vector<HeldBlock> result;
    result.reserve(best.size());
    for (const Block& block : best) {
        result.push_back({base, block.address, block.size, block.number,
                          history.threads().id(block.thread), paths[block.phase]});
    }
    return result;
}

JobHoldings merge(const std::vector<Holdings>& ranks, std::size_t most) {
    JobHoldings job;
    for (const Holdings& rank : ranks) {
        job.ranks.push_back(rank.figures);
        job.blocks.insert(job.blocks.end(), rank.blocks.begin(), rank.blocks.end());
        job.sizes += rank.sizes;
    }
    job.all = merge(job.ranks);
    std::stable_sort(job.blocks.begin(), job.blocks.end(),
                     [](const HeldBlock& a, const HeldBlock& b) { return a.size > b.size; });
    job.blocks.resize(std::min(job.blocks.size(), most));
    return job;
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

void write_blocks(Output& output, const CommonOptions& options,
                  const std::vector<HeldBlock>& blocks, std::size_t of) {
    for (const HeldBlock& block : blocks) {
        output.print("  %12s at %s  made by event %" PRIu64 ", thread %" PRId32 ", %s%s%s\n",
                     human_bytes(block.size).c_str(), address_text(block.address).c_str(),
                     block.number, block.thread, block.phase.c_str(),
                     options.bases.size() > 1 ? "  of " : "",
                     options.bases.size() > 1 ? block.base.c_str() : "");
    }
    write_rest(output, blocks.size(), of);
}

void write_blocks(Json& json, const CommonOptions& options, const std::vector<HeldBlock>& blocks) {
    json.array();
    for (const HeldBlock& block : blocks) {
        json.compact().object();
        if (options.bases.size() > 1) {
            json.member("base", block.base);
        }
        json.member("address", address_text(block.address));
        json.member("bytes", block.size).member("event", block.number);
        json.member("thread", block.thread).member("phase", block.phase).end();
    }
    json.end();
}

std::string metric_text(const Metric& metric, std::uint64_t value) {
    return metric.bytes ? human_bytes(value) : grouped(value);
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

void write_peak(Json& json, const CommonOptions& options, const Figures& all) {
    json.key("peak").object().member("bytes", all.peak.bytes).member("blocks", all.peak.blocks);
    if (options.bases.size() == 1 && all.peak.blocks != 0) {
        const Figures::PeakEvent& at = all.peak_event;
        json.member("event", at.number).member("type", type_name(at.type)).member("size", at.size);
        json.member("thread", at.thread).member("phase", at.phase);
    }
    json.end();
}

void write_sizes(Output& output, const SizeFigures& sizes) {
    std::uint64_t most = 1;
    for (const Amount& bucket : sizes.requests) {
        most = std::max(most, bucket.blocks);
    }
    for (std::size_t i = 0; i < SizeFigures::buckets; ++i) {
        const Amount& bucket = sizes.requests[i];
        if (bucket.blocks == 0) {
            continue;
        }
        const Range range = bucket_range(i);
        const auto bar = static_cast<std::size_t>(30.0 * static_cast<double>(bucket.blocks) /
                                                  static_cast<double>(most));
        output.print("  %14s - %-14s %12s  %12s  %s\n", grouped(range.from).c_str(),
                     grouped(range.to).c_str(), grouped(bucket.blocks).c_str(),
                     human_bytes(bucket.bytes).c_str(), std::string(bar, '#').c_str());
    }
}

void write_sizes(Json& json, const SizeFigures& sizes) {
    json.array();
    for (std::size_t i = 0; i < SizeFigures::buckets; ++i) {
        if (sizes.requests[i].blocks != 0) {
            const Range range = bucket_range(i);
            json.compact().object().member("from", range.from).member("to", range.to);
            json.member("blocks", sizes.requests[i].blocks);
            json.member("bytes", sizes.requests[i].bytes).end();
        }
    }
    json.end();
}

void write_incomplete(Output& output, const Problems& problems) {
    if (problems.empty()) {
        return;
    }
    output.print("INCOMPLETE: %zu problem%s with the files, told on standard error. Figures are of "
                 "what could be "
                 "read.\n\n",
                 problems.size(), plural(problems.size()));
}

} // namespace memtrack
