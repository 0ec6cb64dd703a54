// The format of heaptrack 1.4, which has every allocation and every release, so this one is written while the run
// is read, and grows with it. What it numbers, sizes by phase, is kept as far as a quarter of a million of them;
// then it forgets them and numbers anew, which the format allows. Time counts a transaction as a millisecond, and is told some thousand times.
#include "formats.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <unordered_map>

namespace memtrack::exporting {
namespace {

constexpr std::uint64_t times_told = 1000;
constexpr std::size_t most_infos = 262144;

class HeaptrackWriter : public Watcher {
public:
    HeaptrackWriter(Output& output, const std::string& base, const PhaseTable& table,
                    std::uint64_t events)
        : output_(output), table_(table), step_(std::max<std::uint64_t>(events / times_told, 1)) {
        output_.write("v 10400 2\nX " + line_text(base) + "\nI 1000 0\n");
        module_ = string(line_text(base));
    }

    void made(const Event& event, const Block& block) {
        const std::uint64_t info = info_of(block, event.record.stack);
        Block before;
        held_.put({block.address, block.size, info, 0, 0}, before);
        line('+', info);
    }
    void gone(const Event&, const Block& block, Gone) {
        Block held;
        held_.take(block.address, held);
        line('-', held.number);
    }
    void seen(const Event& event) {
        if (event.number >= next_) {
            next_ = (event.number / step_ + 1) * step_;
            line('c', event.number);
        }
        last_ = event.number;
    }
    void finish() {
        line('c', last_);
        flush();
    }

private:
    struct Key {
        std::uint64_t size;
        std::uint32_t phase;
        bool operator==(const Key&) const = default;
    };
    struct Hash {
        std::size_t operator()(const Key& key) const {
            return static_cast<std::size_t>((key.size * 4099 + key.phase) * 0x9E3779B97F4A7C15U >>
                                            8);
        }
    };

    void line(char kind, std::uint64_t first) {
        char text[24];
        text_.append(text, static_cast<std::size_t>(
                               std::snprintf(text, sizeof text, "%c %" PRIx64 "\n", kind, first)));
        if (text_.size() > 65536) {
            flush();
        }
    }
    void line(const char* kind, std::initializer_list<std::uint64_t> numbers) {
        text_ += kind;
        for (const std::uint64_t number : numbers) {
            char text[20];
            std::snprintf(text, sizeof text, " %" PRIx64, number);
            text_ += text;
        }
        text_ += '\n';
    }
    void flush() {
        output_.write(text_);
        text_.clear();
    }

    std::uint64_t string(const std::string& text) {
        const std::uint64_t number = strings_(text) + 1;
        if (number > strings_told_) {
            strings_told_ = number;
            text_ += "s " + text + "\n";
        }
        return number;
    }

    // A phase's place in the tree stands for an address in the code, and its trace is the path to it.
    std::uint64_t trace_of(std::int32_t stack) {
        std::uint64_t trace = 0;
        for (const std::size_t node : nodes_to(tree_, tree_.place(table_.path(stack)))) {
            if (node >= traces_.size()) {
                traces_.resize(node + 1);
            }
            if (traces_[node] == 0) {
                const std::uint64_t function = string(line_text(tree_.nodes()[node].name));
                line("i", {node + 1, module_, function});
                line("t", {++ips_, trace});
                traces_[node] = ips_;
            }
            trace = traces_[node];
        }
        return trace;
    }

    std::uint64_t info_of(const Block& block, std::int32_t stack) {
        if (infos_.size() == most_infos) {
            infos_.clear();
        }
        const auto [place, fresh] = infos_.try_emplace(Key{block.size, block.phase}, infos_told_);
        if (fresh) {
            line("a", {block.size, trace_of(stack)});
            ++infos_told_;
        }
        return place->second;
    }

    Output& output_;
    const PhaseTable& table_;
    const std::uint64_t step_;
    std::string text_;
    Numbering strings_;
    std::uint64_t strings_told_ = 0, module_ = 0, ips_ = 0, next_ = 0, last_ = 0;
    PhaseTree tree_;
    std::vector<std::uint64_t> traces_; // by node; as many as instruction pointers
    std::unordered_map<Key, std::uint64_t, Hash> infos_;
    std::uint64_t infos_told_ = 0;
    LiveBlocks held_; // a block's number is its info's
};

} // namespace

void write_heaptrack(Output& output, const std::string& base, Problems& problems,
                     ByteCounter* counter) {
    const PhaseTable table(base, problems);
    EventReader reader(base, problems, counter);
    History history;
    HeaptrackWriter writer(output, base, table, transaction_bytes(base) / sizeof(Transaction));
    history.replay(reader, writer);
    history.tell(reader, problems);
    writer.finish();
}

} // namespace memtrack::exporting
