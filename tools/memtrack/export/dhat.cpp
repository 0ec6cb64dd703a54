// DHAT's JSON, for Valgrind's dh_view.html: by phase, what was allocated, for how long, its own maximum, and
// what was held at the peak and at the end. Time is counted in transactions.
#include "formats.h"

#include <algorithm>

namespace memtrack::exporting {

void write_dhat(Output& output, const Ranks& ranks) {
    std::uint64_t end = 0, peak = 0, peak_bytes = 0;
    std::string bases;
    for (const Survey& run : ranks) {
        end = std::max(end, run.end);
        if (run.peak.bytes > peak_bytes) {
            peak = run.peak.number;
            peak_bytes = run.peak.bytes;
        }
        bases += (bases.empty() ? "" : " ") + run.base;
    }
    Json json(output);
    json.object()
        .member("dhatFileVersion", 2)
        .member("mode", "memtrack")
        .member("verb", "Allocated");
    json.member("bklt", true).member("bkacc", false);
    json.member("tu", "transactions").member("Mtu", "Mtrans").member("tuth", 1);
    json.member("cmd", bases).member("pid", 0).member("te", end).member("tg", peak);
    Numbering frames;
    frames("[root]");
    json.key("pps").array();
    for (std::size_t rank = 0; rank < ranks.size(); ++rank) {
        for (const Share& share : ranks[rank].by_phase) {
            if (share.allocated.blocks == 0) {
                continue;
            }
            json.compact().object();
            json.member("tb", share.allocated.bytes).member("tbk", share.allocated.blocks);
            json.member("tl", share.lifetimes);
            json.member("mb", share.high.bytes).member("mbk", share.high.blocks);
            json.member("gb", share.at_peak.bytes).member("gbk", share.at_peak.blocks);
            json.member("eb", share.held.bytes).member("ebk", share.held.blocks);
            json.key("fs").array();
            const std::vector<std::string> path = frames_of(ranks, rank, share);
            for (auto frame = path.rbegin(); frame != path.rend(); ++frame) {
                json.value(frames(*frame));
            }
            json.end().end();
        }
    }
    json.end().key("ftbl").array();
    for (const std::string& frame : frames.texts()) {
        json.value(frame);
    }
    json.end().end();
}

} // namespace memtrack::exporting
