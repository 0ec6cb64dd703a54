// What memtrack's page holds: runs that are reduced without losing a peak, data that cannot leave their script
// element, and a size that has a bound. tests/page opens the pages in a browser.
#include "page_data.h"
#include "recording.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using namespace memtrack;

// The lowest and highest of what was held after the events from..until, with gaps where nothing was added.
HeldCurve::Range range_of(const std::vector<std::uint64_t>& held, std::uint64_t from,
                          std::uint64_t until) {
    HeldCurve::Range range = {held[from], held[from]};
    for (std::uint64_t i = from; i < std::min<std::uint64_t>(until, held.size()); ++i) {
        range.widen(held[i]);
    }
    return range;
}

TEST(Page, curves_keep_lowest_and_highest_values) {
    for (const std::size_t most : {2U, 16U, 64U}) {
        for (const std::size_t events : {1U, 2U, 15U, 16U, 17U, 1000U, 5003U}) {
            constexpr std::uint64_t first = 131072; // as where files are missing
            std::mt19937 random(static_cast<unsigned>(events));
            HeldCurve curve(most);
            std::vector<std::uint64_t> held;
            while (held.size() < events) {
                const std::uint64_t bytes = random() % 1000;
                curve.add(first + held.size(), bytes, 2 * bytes);
                held.push_back(bytes);
                if (random() % 50 == 0) { // a gap
                    held.resize(std::min(events, held.size() + random() % 90), bytes);
                }
            }
            EXPECT_EQ(curve.first(), first);
            ASSERT_LE(curve.stretches().size(), most);
            ASSERT_GT(curve.stretches().size() * 2 * curve.width(), curve.last() - first);
            // Events that are missing count as far as the last one that there was.
            held.resize(curve.last() - first + 1);
            std::uint64_t at = 0;
            for (const HeldCurve::Stretch& stretch : curve.stretches()) {
                const HeldCurve::Range expected = range_of(held, at, at + curve.width());
                EXPECT_EQ(stretch.bytes.high, expected.high) << at;
                EXPECT_LE(stretch.bytes.low, expected.low) << at;
                EXPECT_EQ(stretch.blocks.high, 2 * expected.high) << at;
                at += curve.width();
            }
        }
    }
}

TEST(Page, short_spans_are_taken_together_under_the_phase_above_them) {
    PhaseTree tree;
    const auto node = [&](const char* path) {
        return static_cast<std::uint32_t>(tree.place(path));
    };
    const auto root = node("ROOT"), a = node("ROOT->a"), ab = node("ROOT->a->b"),
               ac = node("ROOT->a->c");
    const auto other = node("phase 7");
    using Spans = std::vector<PhaseSpan>;
    std::string deep = "ROOT";
    while (deep.size() < 20'000) {
        deep += "->a";
    }
    PhaseTree high; // as high as a run's can be; what is deeper stays together
    EXPECT_EQ(high.path(high.place(deep)), deep);
    EXPECT_EQ(high.nodes().size(), 1025U);

    const Spans spans = {{0, root}, {100, ab},   {102, ac}, {104, ab},
                         {106, ac}, {108, root}, {200, a}};
    EXPECT_EQ(coarser(spans, 300, 2, tree), spans);
    EXPECT_EQ(coarser(spans, 300, 4, tree), (Spans{{0, root}, {100, a}, {108, root}, {200, a}}));
    EXPECT_EQ(coarser(spans, 300, 16, tree), (Spans{{0, root}, {200, a}}));
    // A short one at the beginning belongs to what follows; phases with nothing above them are several.
    EXPECT_EQ(coarser({{0, a}, {3, root}, {100, a}, {106, other}}, 112, 10, tree),
              (Spans{{0, root}, {100, PhaseSpan::several}}));
    EXPECT_EQ(coarser({{0, root}, {100, PhaseSpan::several}, {105, a}}, 112, 10, tree),
              (Spans{{0, root}, {100, PhaseSpan::several}}));
    EXPECT_EQ(coarser({{5, a}}, 6, 1000, tree), (Spans{{5, a}}));

    Spans many;
    for (std::uint64_t i = 0; i < 10000; ++i) {
        many.push_back({i, i % 2 == 0 ? ab : ac});
    }
    EXPECT_EQ(at_most(100, many, 10000, tree), (Spans{{0, a}}));
    EXPECT_EQ(at_most(0, many, 10000, tree).size(), 1U);
}

// Runs that vary as much as they can, and have more of everything than a page shows.
PageRun worst_run(std::size_t ranks, unsigned seed) {
    const PageLimits limits = page_limits(ranks);
    std::mt19937_64 random(seed);
    PageRun run;
    run.figures.base = "folder<" + std::to_string(seed);
    run.over_time.curve = HeldCurve(limits.over_time.stretches);
    for (std::size_t i = 0; i < limits.over_time.stretches; ++i) {
        run.over_time.curve.add(i, random() >> 24, random() >> 44);
    }
    ShareFigures share;
    share.allocated = {~std::uint64_t{0}, 1};
    const std::size_t long_name = seed == 0 ? 100000 : 10000;
    for (std::size_t i = 0; i < limits.phases + 50; ++i) {
        PhaseFigures& phase = run.figures.phases.emplace_back();
        phase.path =
            "ROOT->" + std::to_string(i) + "</script>" + std::string(i < 3 ? long_name : 20, 'x');
        static_cast<ShareFigures&>(phase) = share;
        if (i == limits.phases + 30) { // below one that is not shown, and beside the root
            phase.path = run.figures.phases[i - 1].path + "->below";
        } else if (i > limits.phases + 40) {
            phase.path = "phase " + std::to_string(i);
        }
        run.tree.place(phase.path);
        run.over_time.tree.place(phase.path);
    }
    for (std::size_t i = 0; i < limits.threads + 50; ++i) {
        ThreadFigures& thread = run.figures.threads.emplace_back();
        static_cast<ShareFigures&>(thread) = share;
    }
    for (int thread = 0; thread < 64; ++thread) {
        OverTime::Thread& of = run.over_time.threads.emplace_back();
        for (std::size_t i = 0; i < 200; ++i) {
            of.spans.push_back({i, static_cast<std::uint32_t>(random() % limits.phases)});
        }
    }
    run.over_time.threads[0].spans[1].node = PhaseSpan::several;
    run.over_time.threads[1].spans.clear(); // it only released
    return run;
}

TEST(Page, data_are_bounded_and_cannot_end_their_element) {
    for (const std::size_t ranks : {1U, 7U, 1000U}) {
        std::vector<PageRun> runs;
        for (std::size_t i = 0; i < ranks; ++i) {
            runs.push_back(worst_run(ranks, static_cast<unsigned>(i)));
        }
        const Problems problems(100000, {"file<", 4, "is wrong"});
        const std::string data = page_data(runs, problems);
        EXPECT_LT(data.size(), 9'000'000U) << ranks;
        EXPECT_EQ(data.find('<'), std::string::npos);
        EXPECT_NE(data.find("(other phases)"), std::string::npos);
    }
}

TEST(Page, a_run_is_read_with_its_refusals_and_spans) {
    const std::string base = test::scratch_folder("page") + "run";
    test::Events events;
    for (int i = 0; i < 100; ++i) {
        events.push_back({i == 60 || i == 70 ? 0 : 64U * (static_cast<unsigned>(i) + 1), 0,
                          Type::malloc_, 0, 10, 0, i / 40});
    }
    test::write_recording(base, events, {"ROOT", "ROOT->a", "ROOT->b"});
    Problems problems;
    OverTime::Limits limits;
    limits.refusals = 1;
    const OverTime run = take_over_time(base, limits, problems);
    EXPECT_TRUE(problems.empty());
    ASSERT_EQ(run.threads.size(), 1U);
    ASSERT_EQ(run.threads[0].spans.size(), 3U);
    EXPECT_EQ(run.threads[0].spans[1].from, 40U);
    EXPECT_EQ(run.tree.path(run.threads[0].spans[2].node), "ROOT->b");
    ASSERT_EQ(run.refusals.size(), 1U);
    EXPECT_EQ(run.refusals[0].number, 60U);
    EXPECT_EQ(run.curve.stretches().back().bytes.high, 980U);
    limits.spans = 1;
    EXPECT_EQ(take_over_time(base, limits, problems).threads[0].spans,
              (std::vector<PhaseSpan>{{0, 0}}));
}

} // namespace
