// Chrome's trace format, for Perfetto and chrome://tracing: what was held as counters, the phases of each thread
// as slices, the peak as a mark. A transaction is a microsecond, a rank a process. Viewers keep 0 for
// themselves, so processes and threads count from 1.
#include "formats.h"

#include <algorithm>

namespace memtrack::exporting {
namespace {

Json& begin_event(Json& json, std::string_view name, const char* type, std::size_t rank) {
    return json.compact()
        .object()
        .member("name", name)
        .member("ph", type)
        .member("pid", static_cast<std::uint64_t>(rank + 1));
}

std::uint32_t thread_number(const Survey& run, std::uint32_t thread) {
    return static_cast<std::uint32_t>(run.threads[thread]) + 1;
}

void end_with_name(Json& json, const std::string& name) {
    json.key("args").object().member("name", name).end().end();
}

void write_counter(Json& json, std::size_t rank, std::uint64_t at, const Amount& held) {
    begin_event(json, "bytes held", "C", rank).member("ts", at);
    json.key("args").object().member("bytes", held.bytes).end().end();
    begin_event(json, "blocks held", "C", rank).member("ts", at);
    json.key("args").object().member("blocks", held.blocks).end().end();
}

void write_run(Json& json, const Ranks& ranks, std::size_t rank) {
    const Survey& run = ranks[rank];
    begin_event(json, "process_name", "M", rank);
    end_with_name(json, ranks.size() > 1 ? rank_name(ranks, rank) : run.base);
    for (std::uint32_t i = 0; i < run.threads.size(); ++i) {
        begin_event(json, "thread_name", "M", rank).member("tid", thread_number(run, i));
        end_with_name(json, "thread " + std::to_string(run.threads[i]));
    }
    for (const CurvePoint& point : run.curve) {
        write_counter(json, rank, point.number, point.held);
    }
    for (const Slice& slice : run.slices) {
        begin_event(json, run.tree.nodes()[slice.node].name, "X", rank);
        json.member("cat", "phase").member("tid", thread_number(run, slice.thread));
        json.member("ts", slice.begin).member("dur", slice.end - slice.begin).end();
    }
    if (run.peak.blocks != 0) {
        begin_event(json, "peak", "i", rank).member("s", "p");
        json.member("tid", thread_number(run, run.peak.thread)).member("ts", run.peak.number);
        json.key("args").object().member("bytes", run.peak.bytes).member("blocks", run.peak.blocks);
        json.member("phase", run.phases[run.peak.phase]).end().end();
    }
}

} // namespace

void write_perfetto(Output& output, const Ranks& ranks) {
    std::uint64_t left_out = 0, shortest = 1;
    for (const Survey& run : ranks) {
        left_out += run.slices_left_out;
        shortest = std::max(shortest, run.shortest_slice);
    }
    Json json(output);
    json.object().member("displayTimeUnit", "ms").key("otherData").object();
    json.member("time", "a microsecond is a transaction").member("phases left out", left_out);
    json.member("shorter than transactions", left_out != 0 ? shortest : 0).end();
    json.key("traceEvents").array();
    for (std::size_t rank = 0; rank < ranks.size(); ++rank) {
        write_run(json, ranks, rank);
    }
    json.end().end();
}

} // namespace memtrack::exporting
