// Figures for programs: JSON of all, and CSV of one table, with quotes as RFC 4180 has them.
#include "figures.h"
#include "formats.h"

#include <iterator>

namespace memtrack::exporting {
namespace {

std::string csv_quoted(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : line_text(text)) {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + '"';
}

struct Column {
    const char* name;
    ShareAmount amount;
};
constexpr Column columns[] = {{"allocated", &Share::allocated},
                              {"at_peak", &Share::at_peak},
                              {"left", &Share::held},
                              {"high", &Share::high}};

// Of the blocks that a thread made, in whatever phase. Its own highest is not known.
std::vector<Share> by_thread(const Survey& run) {
    std::vector<Share> shares(run.threads.size());
    for (const Share& share : run.by_phase_thread) {
        Share& sum = shares[share.thread];
        sum.thread = share.thread;
        sum.allocated += share.allocated;
        sum.at_peak += share.at_peak;
        sum.held += share.held;
    }
    return shares;
}

void write_row(Output& output, std::size_t rank, const std::string& key, const Share& share,
               std::size_t shown) {
    std::string row = std::to_string(rank) + "," + key;
    for (std::size_t i = 0; i < shown; ++i) {
        const Amount& amount = share.*columns[i].amount;
        row += "," + std::to_string(amount.bytes) + "," + std::to_string(amount.blocks);
    }
    output.write(row + "\r\n");
}

std::string head(const char* key, std::size_t shown) {
    std::string row = std::string("rank,") + key;
    for (std::size_t i = 0; i < shown; ++i) {
        const std::string name = columns[i].name;
        row.append(",").append(name).append("_bytes,").append(name).append("_blocks");
    }
    return row + "\r\n";
}

void write_amounts(Json& json, const Share& share, std::size_t shown) {
    for (std::size_t i = 0; i < shown; ++i) {
        write_amount(json, columns[i].name, share.*columns[i].amount);
    }
}

constexpr std::size_t for_phases = std::size(columns), for_threads = for_phases - 1;

void write_run(Json& json, const Survey& run) {
    json.object().member("base", run.base).member("events", run.events);
    write_amount(json, "allocated", run.allocated);
    json.key("peak").compact().object().member("bytes", run.peak.bytes);
    json.member("blocks", run.peak.blocks).member("transaction", run.peak.number).end();
    write_amount(json, "left", run.left);
    json.key("phases").array();
    for (const Share& share : run.by_phase) {
        json.compact().object().member("path", run.phases[share.phase]);
        write_amounts(json, share, for_phases);
        json.end();
    }
    json.end().key("threads").array();
    for (const Share& share : by_thread(run)) {
        json.compact().object().member("thread", run.threads[share.thread]);
        write_amounts(json, share, for_threads);
        json.end();
    }
    json.end().key("curve").array();
    for (const CurvePoint& point : run.curve) {
        json.compact().object().member("transaction", point.number);
        json.member("bytes", point.held.bytes).member("blocks", point.held.blocks).end();
    }
    json.end().end();
}

} // namespace

void write_csv(Output& output, const Ranks& ranks, Table table) {
    output.write(table == Table::phases    ? head("phase", for_phases)
                 : table == Table::threads ? head("thread", for_threads)
                                           : "rank,transaction,bytes,blocks\r\n");
    for (std::size_t rank = 0; rank < ranks.size(); ++rank) {
        const Survey& run = ranks[rank];
        if (table == Table::phases) {
            for (const Share& share : run.by_phase) {
                write_row(output, rank, csv_quoted(run.phases[share.phase]), share, for_phases);
            }
        } else if (table == Table::threads) {
            for (const Share& share : by_thread(run)) {
                write_row(output, rank, std::to_string(run.threads[share.thread]), share,
                          for_threads);
            }
        } else {
            for (const CurvePoint& point : run.curve) {
                output.write(std::to_string(rank) + "," + std::to_string(point.number) + "," +
                             std::to_string(point.held.bytes) + "," +
                             std::to_string(point.held.blocks) + "\r\n");
            }
        }
    }
}

void write_json(Output& output, const Ranks& ranks, const Problems& problems) {
    Json json(output);
    json.object().key("runs").array();
    for (const Survey& run : ranks) {
        write_run(json, run);
    }
    json.end();
    write_problems(json, problems);
    json.end();
}

} // namespace memtrack::exporting
