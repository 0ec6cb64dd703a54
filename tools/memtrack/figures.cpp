// See figures.h.
#include "figures.h"

#include "output.h"

#include <algorithm>
#include <bit>
#include <map>

namespace memtrack {

namespace {

struct Share {
    ShareFigures figures;
    Amount held;
    std::uint64_t released = 0, released_foreign = 0; // by a thread
    std::uint64_t peaks = 0; // new peaks there had been when at_peak was set aside
};

class FiguresWatcher : public Watcher {
public:
    void made(const Event& event, const Block& block) {
        last_made_ = block.number;
        sizes.requests[static_cast<std::size_t>(std::bit_width(event.record.size))].add(block.size);
        allocated.add(block.size);
        enter(at(phases, block.phase), block);
        enter(at(threads, block.thread), block);
    }

    void gone(const Event& event, const Block& block, Gone how) {
        Share& phase = phases[block.phase];
        Share& thread = threads[block.thread];
        leave(phase, block);
        leave(thread, block);
        if (how != Gone::released) {
            return;
        }
        if (block.number == last_made_) {
            ++temporary;
            ++phase.figures.temporary;
            ++thread.figures.temporary;
        }
        Share& releasing = at(threads, event.thread);
        ++releasing.released;
        releasing.released_foreign += event.thread != block.thread ? 1U : 0U;
    }

    void peaked(const Event&) { ++peaks_; }

    void refused(const Event& event) {
        ++at(phases, event.phase).figures.failed;
        ++at(threads, event.thread).figures.failed;
    }

    void seen(const Event& event) {
        ++by_type[static_cast<std::size_t>(event.record.type)];
        ++at(threads, event.thread).figures.events;
        if (event.phase != no_phase) {
            ++at(phases, event.phase).figures.events;
        }
    }

    ShareFigures result(const Share& share) const {
        ShareFigures figures = share.figures;
        if (share.peaks != peaks_) {
            figures.at_peak = share.held; // unchanged since the peak
        }
        figures.left = share.held;
        return figures;
    }

    std::vector<Share> phases, threads;
    std::array<std::uint64_t, type_count> by_type{};
    Amount allocated;
    std::uint64_t temporary = 0;
    SizeFigures sizes;

private:
    static Share& at(std::vector<Share>& shares, std::uint32_t index) {
        if (index >= shares.size()) {
            shares.resize(index + 1);
        }
        return shares[index];
    }
    void set_aside(Share& share) const {
        if (share.peaks != peaks_) {
            share.peaks = peaks_;
            share.figures.at_peak = share.held;
        }
    }
    void enter(Share& share, const Block& block) const {
        set_aside(share);
        share.held.add(block.size);
        share.figures.allocated.add(block.size);
        share.figures.high = std::max(share.figures.high, share.held.bytes);
    }
    void leave(Share& share, const Block& block) const {
        set_aside(share);
        share.held.remove(block.size);
    }

    std::uint64_t last_made_ = ~std::uint64_t{0};
    std::uint64_t peaks_ = 0;
};

PhaseFigures& by_path(std::vector<PhaseFigures>& phases, std::map<std::string, std::size_t>& index,
                      const std::string& path) {
    const auto [place, fresh] = index.try_emplace(path, phases.size());
    if (fresh) {
        phases.emplace_back().path = path;
    }
    return phases[place->second];
}

} // namespace

void write_amount(Json& json, std::string_view name, const Amount& amount) {
    json.key(name).compact().object();
    json.member("bytes", amount.bytes).member("blocks", amount.blocks).end();
}

ShareFigures& ShareFigures::operator+=(const ShareFigures& other) {
    events += other.events;
    allocated += other.allocated;
    temporary += other.temporary;
    failed += other.failed;
    at_peak += other.at_peak;
    left += other.left;
    high += other.high;
    return *this;
}

SizeFigures& SizeFigures::operator+=(const SizeFigures& other) {
    for (std::size_t i = 0; i < buckets; ++i) {
        requests[i] += other.requests[i];
    }
    return *this;
}

Figures take_figures(const std::string& base, Problems& problems, ByteCounter* counter,
                     const AtEnd& at_end) {
    const std::size_t problems_before = problems.size();
    const PhaseTable table(base, problems);
    EventReader reader(base, problems, counter);
    History history;
    FiguresWatcher watcher;
    history.replay(reader, watcher);
    history.tell(reader, problems);
    if (at_end) {
        at_end(history, table);
    }

    Figures figures;
    figures.base = base;
    figures.complete = problems.size() == problems_before;
    figures.files = reader.files();
    figures.events = history.events();
    figures.by_type = watcher.by_type;
    figures.allocated = watcher.allocated;
    const Peak& peak = history.peak();
    figures.peak = {peak.bytes, peak.blocks};
    figures.left = {history.held_bytes(), history.held().size()};
    figures.temporary = watcher.temporary;
    figures.failed = history.refused();
    figures.unknown_releases = history.unknown_releases();
    figures.lost_releases = history.lost_releases();
    figures.sizes = watcher.sizes;
    const std::vector<std::string> paths = history.phase_paths(table);
    if (peak.blocks != 0) {
        figures.peak_event = {peak.number, peak.type, peak.size, history.threads().id(peak.thread),
                              paths[peak.phase]};
    }
    std::map<std::string, std::size_t> index;
    for (std::size_t i = 0; i < watcher.phases.size(); ++i) {
        by_path(figures.phases, index, paths[i]) += watcher.result(watcher.phases[i]);
    }
    for (std::size_t i = 0; i < watcher.threads.size(); ++i) {
        ThreadFigures& thread = figures.threads.emplace_back();
        static_cast<ShareFigures&>(thread) = watcher.result(watcher.threads[i]);
        thread.thread = history.threads().id(static_cast<std::uint32_t>(i));
        thread.released = watcher.threads[i].released;
        thread.released_foreign = watcher.threads[i].released_foreign;
    }
    std::sort(figures.threads.begin(), figures.threads.end(),
              [](const auto& a, const auto& b) { return a.thread < b.thread; });
    return figures;
}

Figures merge(const std::vector<Figures>& ranks) {
    if (ranks.size() == 1) {
        return ranks[0];
    }
    Figures sum;
    std::map<std::string, std::size_t> index;
    std::map<std::int32_t, ThreadFigures> threads;
    for (const Figures& rank : ranks) {
        sum.complete = sum.complete && rank.complete;
        sum.files += rank.files;
        sum.events += rank.events;
        for (std::size_t i = 0; i < type_count; ++i) {
            sum.by_type[i] += rank.by_type[i];
        }
        sum.allocated += rank.allocated;
        sum.peak += rank.peak;
        sum.left += rank.left;
        sum.temporary += rank.temporary;
        sum.failed += rank.failed;
        sum.unknown_releases += rank.unknown_releases;
        sum.lost_releases += rank.lost_releases;
        sum.sizes += rank.sizes;
        for (const PhaseFigures& phase : rank.phases) {
            by_path(sum.phases, index, phase.path) += phase;
        }
        for (const ThreadFigures& thread : rank.threads) {
            ThreadFigures& merged = threads[thread.thread];
            merged.thread = thread.thread;
            merged += thread;
            merged.released += thread.released;
            merged.released_foreign += thread.released_foreign;
        }
    }
    for (const auto& [unused, thread] : threads) {
        sum.threads.push_back(thread);
    }
    return sum;
}

} // namespace memtrack
