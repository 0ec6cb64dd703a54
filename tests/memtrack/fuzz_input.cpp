// See fuzz_input.h.
#include "fuzz_input.h"

#include "figures.h"
#include "output.h"
#include "phase_tree.h"
#include "recording.h"

#include <cstdio>
#include <cstdlib>

namespace test {

namespace {

void require(bool good, const char* what) {
    if (!good) {
        std::fprintf(stderr, "not so: %s\n", what);
        std::abort();
    }
}

// Takes bytes off the front of the input; zeros behind its end.
class Input {
public:
    explicit Input(const std::string& bytes) : bytes_(bytes) {}
    bool is_left() const { return at_ < bytes_.size(); }
    unsigned byte() { return at_ < bytes_.size() ? static_cast<unsigned char>(bytes_[at_++]) : 0; }
    std::string some(std::size_t most) {
        const std::size_t begin = std::min(at_, bytes_.size());
        at_ = std::min(begin + most, bytes_.size());
        return bytes_.substr(begin, at_ - begin);
    }

private:
    const std::string& bytes_;
    std::size_t at_ = 0;
};

// The paths' places are far larger than any input: each path is a short text here.
std::string phase_table(Input& input) {
    std::string file = input.some(4);
    for (unsigned records = input.byte() % 5; records-- > 0;) {
        std::string record = input.some(4) + input.some(input.byte());
        if (input.byte() % 8 != 0) {
            record.resize(131076);
        }
        file += record;
    }
    return file;
}

void write_files(const std::string& base, Input& input) {
    bool has_full_file = false; // once: it is large
    while (input.is_left()) {
        const unsigned which = input.byte();
        const std::string number = std::to_string(which / 8 % 4);
        switch (which % 8) {
        case 0:
            write_bytes(base + ".phaseStack", phase_table(input));
            break;
        case 1:
            write_bytes(base + ".phase_thr1_" + number, input.some(4 + input.byte() * 8));
            break;
        default:
            if (which == 255 && !has_full_file) { // so that a file behind it is read
                has_full_file = true;
                write_transactions(base + ".memT0", memtrack::full_file,
                                   Events(memtrack::full_file));
            } else {
                write_bytes(base + ".memT" + number, input.some(4 + input.byte() * 8));
            }
        }
    }
}

template <class Shares> memtrack::ShareFigures sum(const Shares& shares) {
    memtrack::ShareFigures all;
    for (const auto& share : shares) {
        all += share;
    }
    return all;
}

void check(const memtrack::Figures& figures, const memtrack::PhaseTree& tree) {
    for (const auto& shares : {sum(figures.phases), sum(figures.threads)}) {
        require(shares.left == figures.left, "shares' left");
        require(shares.at_peak == figures.peak, "shares at the peak");
        require(shares.allocated == figures.allocated, "shares' allocated");
        require(shares.temporary == figures.temporary && shares.failed == figures.failed,
                "shares' counts");
    }
    std::uint64_t events = 0;
    for (const std::uint64_t count : figures.by_type) {
        events += count;
    }
    require(events == figures.events, "events by type");
    memtrack::Amount held, allocated;
    for (const std::size_t root : tree.roots()) {
        held += tree.nodes()[root].inclusive.held;
        allocated += tree.nodes()[root].inclusive.allocated;
    }
    require(held == figures.left && allocated == figures.allocated, "the tree's sums");
}

} // namespace

void read_fuzz_input(const std::string& folder, const std::string& bytes) {
    const std::string base = folder + "f";
    Input input(bytes);
    write_files(base, input);
    memtrack::Problems problems;
    const memtrack::Figures figures = memtrack::take_figures(base, problems);
    check(figures, memtrack::take_phase_tree(base, problems));
    for (const std::int32_t thread : memtrack::threads_with_phase_events(base)) {
        memtrack::read_phase_events(base, thread, problems,
                                    [](const auto& event) { memtrack::json_quoted(event.name); });
    }
    require(problems.size() < 200, "problems are told within bounds");
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::filesystem::remove(entry.path());
    }
}

} // namespace test
