// The formats that memtrack exports, each in a file of its own: each writes what a viewer of others' opens. All
// take the ranks of a job; those that hold one run only are given one.
#pragma once

#include "output.h"
#include "survey.h"

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace memtrack::exporting {

using Ranks = std::vector<Survey>;

void write_massif(Output& output, const Survey& run);
void write_dhat(Output& output, const Ranks& ranks);
void write_pprof(Output& output, const Ranks& ranks);
void write_perfetto(Output& output, const Ranks& ranks);
void write_speedscope(Output& output, const Ranks& ranks);
/// One amount, in bytes, and one line for each phase that has any.
void write_collapsed(Output& output, const Ranks& ranks, ShareAmount amount);
void write_json(Output& output, const Ranks& ranks, const Problems& problems);

enum class Table { phases, threads, curve };
void write_csv(Output& output, const Ranks& ranks, Table table);

/// Reads the run itself: the format has every event.
void write_heaptrack(Output& output, const std::string& base, Problems& problems,
                     ByteCounter* counter);

// ---------------------------------------------------------------------------------------------

/// A name as one line of UTF-8: control characters become blanks, and those in `reserved` become `instead`.
/// What is cut off at `most` bytes is shown by dots.
std::string line_text(std::string_view name, std::string_view reserved = "", char instead = '_',
                      std::size_t most = std::string_view::npos);

/// "rank 1 (BASE)"
std::string rank_name(const Ranks& ranks, std::size_t rank);

/// Frames for each phase of a rank, root first: the rank if there are several, and the phases of its path.
std::vector<std::string> frames_of(const Ranks& ranks, std::size_t rank, const Share& share);

/// Numbers texts in the order of their first appearance.
class Numbering {
public:
    std::size_t operator()(const std::string& text) {
        const auto [place, fresh] = numbers_.try_emplace(text, texts_.size());
        if (fresh) {
            texts_.push_back(text);
        }
        return place->second;
    }
    const std::vector<std::string>& texts() const { return texts_; }

private:
    std::unordered_map<std::string, std::size_t> numbers_;
    std::vector<std::string> texts_;
};

} // namespace memtrack::exporting
