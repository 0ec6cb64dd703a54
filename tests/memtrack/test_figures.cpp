// The replay and its figures against a model that knows nothing but the rules: random histories, in which
// everything happens that a recorder or a stopped one can leave.
#include "export/formats.h"
#include "figures.h"
#include "phase_tree.h"
#include "recording.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <sstream>

namespace {

using namespace memtrack;
using test::Events;

const std::vector<std::string> paths = {"ROOT",          "ROOT->a", "ROOT->a->b",
                                        "ROOT->a->b->a", "ROOT->c", "ROOT->a->c"};

Transaction event(Type type, std::uint64_t pointer, std::uint64_t size, int thread = 0,
                  std::uint64_t old_pointer = 0, int stack = 0) {
    return {pointer, old_pointer, type, 0, size, thread, stack};
}

// Few addresses and threads, so that all of them meet.
Events random_events(unsigned seed, std::size_t count) {
    std::mt19937 random(seed);
    const auto below = [&](unsigned n) { return static_cast<int>(random() % n); };
    Events events;
    std::vector<int> phase(4, 0);
    for (std::size_t i = 0; i < count; ++i) {
        const int thread = below(4);
        int& stack = phase[static_cast<std::size_t>(thread)];
        stack = below(4) == 0 ? below(7) - 1 : stack; // no phase, too
        constexpr Type types[] = {Type::malloc_, Type::malloc_, Type::malloc_,  Type::free_,
                                  Type::free_,   Type::free_,   Type::realloc_, Type::realloc_,
                                  Type::calloc_, Type::new_,    Type::delete_,  Type::valloc_,
                                  Type::release, Type::acquire};
        const Type type = types[below(14)];
        const bool sized = is_allocation(type) || type == Type::realloc_;
        Transaction next = event(
            type, static_cast<std::uint64_t>(below(40)) * 16,
            sized ? static_cast<std::uint64_t>(std::max(below(300) - 40, 0)) : no_size, thread,
            type == Type::realloc_ ? static_cast<std::uint64_t>(below(40)) * 16 : 0, stack);
        if (type == Type::realloc_ && below(4) == 0) {
            next.pointer = next.old_pointer;
        } else if (type == Type::realloc_ && below(4) == 0) { // refused, or to nothing: a release
            next.pointer = 0;
            next.size = static_cast<std::uint64_t>(below(2)) * 50;
        }
        if (type == Type::free_) {
            next.stack = below(1000) - 500; // has no meaning
        }
        events.push_back(next);
    }
    return events;
}

struct Model {
    struct Held {
        std::uint64_t size;
        std::size_t at;
        int thread, stack;
    };
    std::map<std::uint64_t, Held> held;
    std::map<std::uint64_t, std::size_t> taken_over; // addresses given out again: by which event
    std::uint64_t bytes = 0, failed = 0, unknown = 0, lost = 0, temporary = 0;
    std::size_t last_made = ~std::size_t{0};

    void drop(std::uint64_t address) {
        bytes -= held[address].size;
        held.erase(address);
    }
    void release(std::uint64_t address, bool by_free) {
        if (address == 0) {
            return;
        }
        if (held.count(address) == 0) {
            ++unknown;
            return;
        }
        temporary += by_free && held[address].at == last_made ? 1U : 0U;
        drop(address);
    }
    void make(const Transaction& t, std::size_t at) {
        if (held.count(t.pointer) != 0) {
            ++lost;
            taken_over[t.pointer] = at;
            drop(t.pointer);
        }
        held[t.pointer] = {t.size, at, t.thread, std::max(t.stack, -1)};
        bytes += t.size;
        last_made = at;
    }
    // A resize whose old address another thread was given before, with nothing of its own in between.
    bool was_late(const Events& events, std::size_t at) {
        const Transaction& t = events[at];
        const auto taken = taken_over.find(t.old_pointer);
        if (taken == taken_over.end() || events[taken->second].thread == t.thread) {
            return false;
        }
        for (std::size_t i = taken->second + 1; i < at; ++i) {
            if (events[i].thread == t.thread) {
                return false;
            }
        }
        taken_over.erase(taken);
        --lost;
        return true;
    }
    void step(const Events& events, std::size_t at) {
        const Transaction& t = events[at];
        if (is_allocation(t.type)) {
            t.pointer == 0 ? void(++failed) : make(t, at);
        } else if (is_release(t.type)) {
            release(t.pointer, true);
        } else if (t.type == Type::realloc_ && t.pointer == 0 && t.size != 0) {
            ++failed;
        } else if (t.type == Type::realloc_) {
            const bool late = was_late(events, at);
            if (!late && t.pointer == t.old_pointer && held.count(t.pointer) != 0) {
                drop(t.pointer);
            } else if (!late) {
                release(t.old_pointer, false);
            }
            if (t.pointer != 0) {
                make(t, at);
            }
        }
    }
    template <class Key> Amount sum(const Key& belongs) const {
        Amount amount;
        for (const auto& [address, block] : held) {
            if (belongs(block)) {
                amount.add(block.size);
            }
        }
        return amount;
    }
};

std::string path_of(int stack) {
    return stack < 0 ? "(no phase)" : paths[static_cast<std::size_t>(stack)];
}
bool is_in(const std::string& path, const std::string& above) {
    return path == above || path.starts_with(above + "->");
}

class Replay : public testing::Test {
protected:
    std::string base_ = test::scratch_folder("figures") + "run";
    Problems problems_;
};

TEST_F(Replay, AgreesWithTheModel) {
    for (unsigned seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        const Events events = random_events(seed, 40 + 25 * (seed % 20));
        test::write_recording(base_, events, paths);
        problems_.clear();
        const Figures figures = take_figures(base_, problems_);
        const PhaseTree tree = take_phase_tree(base_, problems_);

        Model model, at_peak;
        std::array<std::uint64_t, type_count> by_type{};
        std::uint64_t peak = 0;
        std::size_t peak_at = 0;
        std::map<std::string, PhaseNode> nodes; // inclusive figures by path
        std::map<std::string, std::uint64_t> own_high;
        std::map<int, std::string> where; // by thread
        for (std::size_t i = 0; i < events.size(); ++i) {
            const std::uint64_t before = model.bytes;
            const std::string path = path_of(events[i].stack < 0 ? -1 : events[i].stack % 6);
            if (events[i].type != Type::free_) {
                for (const std::string& p : paths) {
                    if (is_in(path, p) && !is_in(where[events[i].thread], p)) {
                        if (nodes[p].entries++ == 0) {
                            nodes[p].held_at_entry = before;
                            nodes[p].first_event = i;
                        }
                    } else if (!is_in(path, p) && is_in(where[events[i].thread], p)) {
                        nodes[p].inclusive.at_exit =
                            model.sum([&](const auto& b) { return is_in(path_of(b.stack), p); });
                        nodes[p].own.at_exit =
                            model.sum([&](const auto& b) { return path_of(b.stack) == p; });
                    }
                }
                where[events[i].thread] = path;
                for (const std::string& p : paths) { // also where it is entered once more
                    if (is_in(path, p)) {
                        nodes[p].peak_within = std::max(nodes[p].peak_within, before);
                    }
                }
            }
            model.step(events, i);
            ++by_type[static_cast<std::size_t>(events[i].type)];
            if (model.bytes > peak) {
                peak = model.bytes;
                peak_at = i;
                at_peak = model;
            }
            const bool made = model.last_made == i;
            for (const std::string& p : paths) {
                const auto sum =
                    model.sum([&](const auto& b) { return is_in(path_of(b.stack), p); });
                const auto own = model.sum([&](const auto& b) { return path_of(b.stack) == p; });
                nodes[p].inclusive.high = std::max(nodes[p].inclusive.high, sum.bytes);
                own_high[p] = std::max(own_high[p], own.bytes);
                if (made && is_in(path, p)) {
                    nodes[p].peak_within = std::max(nodes[p].peak_within, model.bytes);
                    nodes[p].inclusive.allocated.add(events[i].size);
                }
            }
        }

        EXPECT_EQ(figures.events, events.size());
        EXPECT_EQ(figures.by_type, by_type);
        EXPECT_EQ(figures.failed, model.failed);
        EXPECT_EQ(figures.unknown_releases, model.unknown);
        EXPECT_EQ(figures.lost_releases, model.lost);
        EXPECT_EQ(figures.temporary, model.temporary);
        EXPECT_EQ(figures.complete, model.unknown + model.lost == 0);
        EXPECT_EQ(figures.peak, at_peak.sum([](const auto&) { return true; }));
        EXPECT_EQ(figures.peak_event.number, peak_at);
        EXPECT_EQ(figures.left, model.sum([](const auto&) { return true; }));
        std::uint64_t phases_temporary = 0;
        for (const PhaseFigures& phase : figures.phases) {
            const auto own = [&](const auto& b) { return path_of(b.stack) == phase.path; };
            EXPECT_EQ(phase.at_peak, at_peak.sum(own)) << phase.path;
            EXPECT_EQ(phase.left, model.sum(own)) << phase.path;
            EXPECT_EQ(phase.high, phase.path == "(no phase)" ? phase.high : own_high[phase.path]);
            phases_temporary += phase.temporary;
        }
        EXPECT_EQ(phases_temporary, model.temporary);
        for (const ThreadFigures& thread : figures.threads) {
            const auto own = [&](const auto& b) { return b.thread == thread.thread; };
            EXPECT_EQ(thread.at_peak, at_peak.sum(own));
            EXPECT_EQ(thread.left, model.sum(own));
            EXPECT_EQ(thread.events,
                      static_cast<std::uint64_t>(std::count_if(events.begin(), events.end(), own)));
        }
        for (std::size_t i = 0; i < tree.nodes().size(); ++i) {
            const std::string path = tree.path(i);
            if (path == "(no phase)") {
                continue;
            }
            SCOPED_TRACE(path);
            PhaseNode& expected = nodes[path];
            const PhaseNode& node = tree.nodes()[i];
            const Amount left =
                model.sum([&](const auto& b) { return is_in(path_of(b.stack), path); });
            for (const auto& [thread, there] : where) {
                if (is_in(there, path)) {
                    expected.inclusive.at_exit = left; // open when the run ended
                    expected.own.at_exit = node.own.held;
                }
            }
            EXPECT_EQ(node.entries, expected.entries);
            EXPECT_EQ(node.first_event, expected.first_event);
            EXPECT_EQ(node.held_at_entry, expected.held_at_entry);
            EXPECT_EQ(node.peak_within, expected.peak_within);
            EXPECT_EQ(node.inclusive.high, expected.inclusive.high);
            EXPECT_EQ(node.inclusive.allocated, expected.inclusive.allocated);
            EXPECT_EQ(node.inclusive.at_exit, expected.inclusive.at_exit);
            EXPECT_EQ(node.own.at_exit, expected.own.at_exit);
            EXPECT_EQ(node.own.held,
                      model.sum([&](const auto& b) { return path_of(b.stack) == path; }));
            EXPECT_EQ(node.inclusive.held, left);
        }
    }
}

TEST_F(Replay, FollowsAResizeThatIsRecordedLate) {
    // Thread 1 has moved its block; thread 2 is given the address and is recorded first.
    test::write_recording(base_, {event(Type::malloc_, 16, 100, 1), event(Type::malloc_, 16, 7, 2),
                                  event(Type::realloc_, 64, 300, 1, 16)});
    const Figures figures = take_figures(base_, problems_);
    EXPECT_EQ(figures.left.bytes, 307U);
    EXPECT_TRUE(figures.complete) << problems_[0].sentence();
    // Thread 2 moves it on before either is recorded, and thread 3 is given it.
    for (const int first : {1, 2}) {
        const Transaction late[] = {event(Type::realloc_, 64, 300, 1, 16),
                                    event(Type::realloc_, 80, 20, 2, 16)};
        test::write_recording(base_,
                              {event(Type::malloc_, 16, 100, 1), event(Type::malloc_, 16, 7, 2),
                               event(Type::malloc_, 16, 9, 3), late[first - 1], late[2 - first],
                               event(Type::free_, 16, no_size, 3)});
        const Figures twice = take_figures(base_, problems_);
        EXPECT_EQ(twice.left.bytes, 320U);
        EXPECT_TRUE(twice.complete) << problems_[0].sentence();
    }
}

// More of them than are remembered, each told once.
TEST_F(Replay, CountsAddressesGivenOutAgain) {
    Events events;
    for (unsigned i = 0; i < 2 * 70'000; ++i) {
        events.push_back(event(Type::malloc_, 16 + i % 70'000, 1));
    }
    test::write_recording(base_, events);
    EXPECT_EQ(take_figures(base_, problems_).lost_releases, 70'000U);
    ASSERT_EQ(problems_.size(), 1U);
    EXPECT_NE(problems_[0].text.find("event 70000 is given 0x10"), std::string::npos);
}

// heaptrack's file numbers sizes by phase, and forgets them when there are very many.
TEST_F(Replay, IsExportedWithMoreSizesThanAreRemembered) {
    constexpr std::uint64_t sizes = 262'144 + 5;
    Events events;
    for (std::uint64_t i = 0; i < sizes + 3; ++i) {
        events.push_back(event(Type::malloc_, 16 * (i + 1), i % sizes + 1));
    }
    events.push_back(event(Type::free_, 16, no_size));
    test::write_recording(base_, events);
    std::string text;
    Output output(text);
    exporting::write_heaptrack(output, base_, problems_, nullptr);
    std::istringstream lines(text);
    std::vector<std::uint64_t> infos;
    std::uint64_t bytes = 0;
    for (std::string line; std::getline(lines, line);) {
        const std::uint64_t number = line[0] == 'a' || line[0] == '+' || line[0] == '-'
                                         ? std::stoull(line.substr(2), nullptr, 16)
                                         : 0;
        if (line[0] == 'a') {
            infos.push_back(number);
        } else if (line[0] == '+') {
            bytes += infos.at(number);
        } else if (line[0] == '-') {
            bytes -= infos.at(number);
        }
    }
    EXPECT_EQ(bytes, sizes * (sizes + 1) / 2 + 1 + 2 + 3 - 1);
    EXPECT_EQ(infos.size(), sizes + 3);
}

// The table by itself, where its searches are long: many blocks, and addresses that collide.
TEST(LiveBlocks, AgreeWithAMap) {
    LiveBlocks table;
    std::map<std::uint64_t, std::uint64_t> model;
    std::mt19937_64 random(7);
    for (std::uint64_t i = 0; i < 300'000; ++i) {
        const std::uint64_t address =
            i % 3 == 0 ? (random() % 20'000 + 1) << 40 : (random() % 20'000 + 1) * 16;
        Block block;
        if (random() % 9 < 5) {
            EXPECT_EQ(table.put({address, i, i, 0, 0}, block), model.count(address) != 0);
            model[address] = i;
        } else {
            ASSERT_EQ(table.take(address, block), model.count(address) != 0);
            if (model.count(address) != 0) {
                ASSERT_EQ(block.size, model[address]);
            }
            model.erase(address);
        }
    }
    ASSERT_EQ(table.size(), model.size());
    std::size_t seen = 0;
    table.for_each([&](const Block& block) { seen += model.at(block.address) == block.size; });
    EXPECT_EQ(seen, model.size());
    for (const auto& [address, size] : model) {
        ASSERT_NE(table.find(address), nullptr);
    }
}

} // namespace
