// See fuzz_input.h.
#include "fuzz_input.h"

#include "export/formats.h"
#include "figures.h"
#include "input_files.h"
#include "json.h"
#include "output.h"
#include "page_data.h"
#include "phase_tree.h"
#include "recording.h"
#include "replay/plan.h"

#include <cstdio>
#include <cstdlib>
#include <map>

namespace test {

namespace {

void require(bool good, const char* what) {
    if (!good) {
        std::fprintf(stderr, "not so: %s\n", what);
        std::abort();
    }
}

class MemoryFile : public memtrack::InputFile {
public:
    explicit MemoryFile(const std::string& bytes) : bytes_(bytes) {}
    std::uint64_t size() const override { return bytes_.size(); }
    std::size_t read(void* data, std::size_t most) override {
        const std::size_t bytes = std::min(most, bytes_.size() - at_);
        std::memcpy(data, bytes_.data() + at_, bytes);
        at_ += bytes;
        return bytes;
    }
    bool go_to(std::uint64_t offset) override {
        at_ = std::min<std::size_t>(offset, bytes_.size());
        return true;
    }

private:
    const std::string& bytes_;
    std::size_t at_ = 0;
};

class MemoryFiles : public memtrack::InputFiles {
public:
    MemoryFiles() { memtrack::set_input_files(this); }
    ~MemoryFiles() override { memtrack::set_input_files(nullptr); }
    std::unique_ptr<memtrack::InputFile> open(const std::string& name) const override {
        const auto file = files.find(name);
        return file == files.end() ? nullptr : std::make_unique<MemoryFile>(*file->second);
    }
    std::uint64_t size(const std::string& name) const override {
        const auto file = files.find(name);
        return file == files.end() ? 0 : file->second->size();
    }
    std::vector<std::string> endings(const std::string& start) const override {
        std::vector<std::string> found;
        for (const auto& [name, unused] : files) {
            if (name.starts_with(start)) {
                found.push_back(name.substr(start.size()));
            }
        }
        return found;
    }

    void put(const std::string& name, std::string bytes) {
        files[name] = std::make_shared<const std::string>(std::move(bytes));
    }

    std::map<std::string, std::shared_ptr<const std::string>> files;
};

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

// Events of few bytes each, most of which have to do with events before them. Addresses are few and touch.
std::string events_in_brief(Input& input) {
    const unsigned count = input.byte(), claimed = input.byte();
    std::string file = word(static_cast<std::int32_t>(claimed < 250 ? count + 1 : claimed));
    std::int32_t id = 0;
    for (unsigned i = 0; i <= count && input.is_left(); ++i) {
        const unsigned what = input.byte(), more = input.byte(), where = input.byte();
        memtrack::Transaction event;
        event.type = static_cast<memtrack::Type>(what % 10); // the last is none
        event.stack = static_cast<std::int32_t>(what / 10 % 6) - 1;
        event.thread = static_cast<std::int32_t>(what / 60);
        event.pointer = where % 32 * std::uint64_t{64};
        event.old_pointer = event.type == memtrack::Type::realloc_ ? input.byte() % 32 * 64 : 0;
        event.size = more < 200   ? more
                     : more < 255 ? std::uint64_t{1} << (more - 200)
                                  : memtrack::no_size;
        id += where < 224 ? 0 : static_cast<std::int32_t>(where) - 240; // gaps, and back
        event.id = id++;
        file.append(reinterpret_cast<const char*>(&event), sizeof event);
    }
    return file;
}

// So that a file behind it is read. It costs much, so three bytes, not one, ask for it.
const std::shared_ptr<const std::string>& full_file() {
    static const auto bytes = std::make_shared<const std::string>(
        word(memtrack::full_file) +
        std::string(memtrack::full_file * sizeof(memtrack::Transaction), '\0'));
    return bytes;
}

void write_files(MemoryFiles& files, const std::string& base, Input& input) {
    while (input.is_left()) {
        const unsigned which = input.byte();
        const std::string number = std::to_string(which / 8 % 4);
        switch (which % 8) {
        case 0:
            files.put(base + ".phaseStack", phase_table(input));
            break;
        case 1:
            files.put(base + ".phase_thr1_" + number, input.some(4 + input.byte() * 8));
            break;
        case 2:
            files.put(base + ".memT" + number, events_in_brief(input));
            break;
        default:
            if (which == 255 && input.byte() == 0x10 && input.byte() == 0x32) {
                files.files[base + ".memT0"] = full_file();
            } else {
                files.put(base + ".memT" + number, input.some(4 + input.byte() * 8));
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

void check_page(const std::string& base, const memtrack::Figures& figures,
                const memtrack::PhaseTree& tree, memtrack::Problems& problems) {
    memtrack::OverTime over_time = memtrack::take_over_time(base, {64, 8, 2, 3}, problems);
    std::uint64_t highest = 0;
    for (const auto& stretch : over_time.curve.stretches()) {
        highest = std::max(highest, stretch.bytes.high);
    }
    require(highest == figures.peak.bytes, "the peak is on the curve");
    const memtrack::PageRun run = {figures, tree, std::move(over_time), {}};
    read_json(memtrack::page_data({run, run}, problems)); // throws if it is none
}

// What others' viewers open.
void check_exports(const std::string& base, const memtrack::Figures& figures,
                   memtrack::Problems& problems) {
    using namespace memtrack::exporting;
    const Ranks ranks(2, take_survey(base, problems, nullptr));
    require(ranks[0].allocated == figures.allocated && ranks[0].left == figures.left,
            "what exports are made of");
    const auto text = [](const auto& write) {
        std::string bytes;
        memtrack::Output output(bytes);
        write(output);
        return bytes;
    };
    read_json(text([&](auto& output) { write_dhat(output, ranks); }));
    read_json(text([&](auto& output) { write_perfetto(output, ranks); }));
    read_json(text([&](auto& output) { write_speedscope(output, ranks); }));
    read_json(text([&](auto& output) { write_json(output, ranks, problems); }));
    text([&](auto& output) { write_massif(output, ranks[0]); });
    text([&](auto& output) { write_pprof(output, ranks); });
    text([&](auto& output) { write_collapsed(output, ranks, &Share::at_peak); });
    text([&](auto& output) { write_csv(output, ranks, Table::phases); });
    text([&](auto& output) { write_heaptrack(output, base, problems, nullptr); });
}

// Operations of a replay use slots as an allocator needs it: a slot is free before it is taken, and not after.
void check_plan(const std::string& base, memtrack::Problems& problems) {
    using memtrack::replay::Kind;
    std::vector<bool> held;
    const auto sink = [&](const memtrack::replay::Op& operation) {
        if (operation.kind == Kind::peak) {
            return;
        }
        held.resize(std::max<std::size_t>(held.size(), operation.slot + std::size_t{1}));
        const bool takes = operation.kind == Kind::allocate || operation.kind == Kind::clear;
        require(held[operation.slot] != takes, "a slot's state");
        held[operation.slot] = operation.kind != Kind::release;
    };
    memtrack::EventReader reader(base, problems);
    memtrack::History history;
    memtrack::replay::Plan plan(sink, 0);
    history.replay(reader, plan);
    require(static_cast<std::size_t>(std::count(held.begin(), held.end(), true)) ==
                history.held().size(),
            "slots held at the end");
}

} // namespace

void read_fuzz_input(const std::string& bytes) {
    const std::string base = "f";
    MemoryFiles files;
    Input input(bytes);
    write_files(files, base, input);
    memtrack::Problems problems;
    const memtrack::Figures figures = memtrack::take_figures(base, problems);
    const memtrack::PhaseTree tree = memtrack::take_phase_tree(base, problems);
    check(figures, tree);
    for (const std::int32_t thread : memtrack::threads_with_phase_events(base)) {
        memtrack::read_phase_events(base, thread, problems,
                                    [](const auto& event) { memtrack::json_quoted(event.name); });
    }
    require(problems.size() < 200, "problems are told within bounds");
    // What costs most is done by turns.
    if (files.size(base + ".memT0") > 1000000) {
        return; // its events are all alike
    }
    switch (bytes.size() % 8) {
    case 0:
        return check_page(base, figures, tree, problems);
    case 1:
        return check_exports(base, figures, problems);
    default:
        return check_plan(base, problems);
    }
}

} // namespace test
