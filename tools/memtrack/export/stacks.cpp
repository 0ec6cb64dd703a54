// Phase paths as stacks with bytes: speedscope's JSON, and the collapsed lines of the flame graph tools.
#include "formats.h"

#include <map>

namespace memtrack::exporting {
namespace {

struct Profile {
    const char* name;
    ShareAmount amount;
};
constexpr Profile profiles[] = {{"held at the peak", &Share::at_peak},
                                {"not released", &Share::held},
                                {"allocated", &Share::allocated}};

void write_profile(Json& json, const Ranks& ranks, std::size_t rank, const Profile& profile,
                   Numbering& frames) {
    const Survey& run = ranks[rank];
    std::uint64_t total = 0;
    for (const Share& share : run.by_phase) {
        total += (share.*profile.amount).bytes;
    }
    json.object().member("type", "sampled");
    json.member("name", (ranks.size() > 1 ? rank_name(ranks, rank) + ": " : "") + profile.name);
    json.member("unit", "bytes").member("startValue", 0).member("endValue", total);
    json.key("samples").compact().array();
    for (const Share& share : run.by_phase) {
        if ((share.*profile.amount).bytes != 0) {
            json.array();
            for (const std::size_t node : nodes_to(run.tree, run.nodes[share.phase])) {
                json.value(frames(run.tree.nodes()[node].name));
            }
            json.end();
        }
    }
    json.end().key("weights").compact().array();
    for (const Share& share : run.by_phase) {
        if ((share.*profile.amount).bytes != 0) {
            json.value((share.*profile.amount).bytes);
        }
    }
    json.end().end();
}

} // namespace

void write_speedscope(Output& output, const Ranks& ranks) {
    Json json(output);
    Numbering frames;
    json.object().member("$schema", "https://www.speedscope.app/file-format-schema.json");
    json.member("exporter", "memtrack").member("name", ranks.front().base);
    json.member("activeProfileIndex", 0).key("profiles").array();
    for (std::size_t rank = 0; rank < ranks.size(); ++rank) {
        for (const Profile& profile : profiles) {
            write_profile(json, ranks, rank, profile, frames);
        }
    }
    json.end().key("shared").object().key("frames").array();
    for (const std::string& frame : frames.texts()) {
        json.compact().object().member("name", frame).end();
    }
    json.end().end().end();
}

void write_collapsed(Output& output, const Ranks& ranks, ShareAmount amount) {
    std::map<std::string, std::uint64_t> lines; // names may be the same once they are escaped
    for (std::size_t rank = 0; rank < ranks.size(); ++rank) {
        for (const Share& share : ranks[rank].by_phase) {
            std::string stack;
            for (const std::string& frame : frames_of(ranks, rank, share)) {
                if (!stack.empty()) {
                    stack += ';';
                }
                stack += line_text(frame, ";", ':');
            }
            if ((share.*amount).bytes != 0) {
                lines[stack] += (share.*amount).bytes;
            }
        }
    }
    for (const auto& [stack, bytes] : lines) {
        output.write(stack + " " + std::to_string(bytes) + "\n");
    }
}

} // namespace memtrack::exporting
