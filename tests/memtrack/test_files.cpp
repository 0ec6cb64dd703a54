// Damaged, missing and foreign files: each is told with its name and offset, what can be read is read, and
// the program ends with its status for it.
#include "event_reader.h"
#include "figures.h"
#include "fuzz_input.h"
#include "json.h"
#include "recording.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using memtrack::Problems;
using test::Events;
using test::write_bytes;
using test::write_transactions;

constexpr int full = memtrack::full_file;

class Damaged : public testing::Test {
protected:
    std::string base_ = test::scratch_folder("damaged") + "run";
    std::string memT(int number) const { return base_ + ".memT" + std::to_string(number); }

    static Events events(int count, int first_id) {
        Events all;
        for (int i = first_id; i < first_id + count; ++i) {
            all.push_back(
                {16 + 16 * static_cast<std::uint64_t>(i), 0, memtrack::Type::malloc_, i, 1, 0, 0});
        }
        return all;
    }
    // A file as the recorder writes it, from the id that its number tells.
    void write(int number, int count) const {
        write_transactions(memT(number), count, events(count, number * full));
    }
};

struct Case {
    const char* name;
    std::function<void()> damage; ///< of a whole run of three files with 10 events in the last
    std::uint64_t events;         ///< that can be read
    const char* told;             ///< behind the base name
};

TEST_F(Damaged, IsToldAndReadAsFarAsItGoes) {
    const int more = 10;
    const auto transactions = [this](int number, int count, int held, int first_id,
                                     const std::string& behind = "") {
        write_transactions(memT(number), count, events(held, first_id), behind);
    };
    const auto change = [&](const std::function<void(Events&)>& edit) {
        return [this, edit] {
            Events last = events(10, 2 * full);
            edit(last);
            write_transactions(memT(2), 10, last);
        };
    };
    using memtrack::Type;
    const Case cases[] = {
        {"a truncated last file", [&] { transactions(2, 10, 3, 2 * full, std::string(39, 'x')); },
         2 * full + 3, ".memT2, byte 124: the file ends here, after 3 whole records of the 10"},
        {"cut off in its count", [&] { write_bytes(memT(2), "ab"); }, 2 * full,
         ".memT2, byte 0: too short for its count"},
        {"a count below 1", [&] { transactions(2, 0, 10, 2 * full); }, 2 * full,
         ".memT2, byte 0: begins with the number 0, which is no count"},
        {"a count above all", [&] { transactions(2, full + 1, 10, 2 * full); }, 2 * full,
         "begins with the number 131073"},
        {"a count larger than the file", [&] { transactions(2, full, 10, 2 * full); },
         2 * full + 10,
         ".memT2, byte 404: the file ends here, after 10 whole records of the 131072"},
        {"more behind the count", [&] { transactions(2, 10, 10, 2 * full, "xyz"); }, 2 * full + 10,
         ".memT2, byte 404: the file goes on behind the 10 records"},
        {"a file that is none of ours", [&] { write_bytes(memT(2), "#include <stdio.h>\n"); },
         2 * full, "not a tracking file"},
        {"none of ours in the middle", [&] { write_bytes(memT(1), "#include <stdio.h>\n"); },
         full + 10, ".memT1, byte 0: begins with the number 1668180259"},
        {"a gap in ids", change([](Events& e) { e[4].id += 6, e[5].id += 6; }), 2 * full + 10,
         ".memT2, byte 164: event 262148 is missing, 262154 stands in its place"},
        {"what is wrong behind a gap", change([](Events& e) {
             for (std::size_t i = 4; i < 10; ++i) {
                 e[i].id += 6;
             }
             e[9] = {8, 0, Type::free_, e[9].id, memtrack::no_size, 0, 0};
         }),
         2 * full + 10, ".memT2, byte 364: event 262159 releases 0x8"},
        {"a single id that is wrong", change([](Events& e) { e[4].id = 1 << 30; }), 2 * full + 10,
         ".memT2, byte 164: event 262148 has the wrong id 1073741824"},
        {"single ids that are wrong where no other is read with them",
         [&] {
             Events all = events(full, full);
             all[16383].id = all[full - 1].id = 1 << 30;
             write_transactions(memT(1), full, all);
         },
         2 * full + 10, ".memT1, byte 5242844: event 262143 has the wrong id 1073741824"},
        {"unknown types, more than are told",
         [&] {
             Events all = events(full, full);
             for (std::size_t i = 5; i < 16; ++i) {
                 all[i].type = Type{9};
             }
             write_transactions(memT(1), full, all);
         },
         2 * full - 1,
         ".memT1, byte 564: event 131086 has the unknown type 9 and is left out; further ones are "
         "not told"},
        {"a folder in a file's place",
         [&] {
             std::filesystem::remove(memT(1));
             std::filesystem::create_directory(memT(1));
         },
         full + 10, ".memT1, byte 0: cannot be opened"},
        {"a missing middle file", [&] { std::filesystem::remove(memT(1)); }, full + 10,
         ".memT1, byte 0: the file is missing; what follows it is read"},
        {"missing first files",
         [&] {
             std::filesystem::remove(memT(0));
             std::filesystem::remove(memT(1));
         },
         10, ".memT0, byte 0: files from this one to .memT1 are missing"},
        {"leftovers of an earlier, longer run", [&] { transactions(1, 7, 7, full); }, full + 7,
         ".memT2, byte 0: not read, nor are others behind it (1 in all)"},
        {"no events, of a run that had some",
         [&] {
             for (int i : {0, 1, 2}) {
                 std::filesystem::remove(memT(i));
             }
             std::filesystem::remove(base_ + ".phaseStack");
             write_bytes(base_ + ".phase_thr3_1", "");
         },
         0, ".memT0, byte 0: there is no such file"},
        {"a missing table of phases", [&] { std::filesystem::remove(base_ + ".phaseStack"); },
         2 * full + 10, ".phaseStack, byte 0: cannot be opened"},
        {"a cut table of phases",
         [&] { write_bytes(base_ + ".phaseStack", test::word(1) + test::word(0) + "ROOT"); },
         2 * full + 10, ".phaseStack, byte 4: the file ends here, after 0 whole records of the 1"},
        {"a table of phases that ends in its count",
         [&] { write_bytes(base_ + ".phaseStack", "ab"); }, 2 * full + 10,
         ".phaseStack, byte 0: too short for its count"},
        {"a table of less than no phases",
         [&] { write_bytes(base_ + ".phaseStack", test::word(-1)); }, 2 * full + 10,
         ".phaseStack, byte 0: begins with the number -1"},
        {"a table of phases with more behind it",
         [&] { write_bytes(base_ + ".phaseStack", test::word(0) + "more"); }, 2 * full + 10,
         ".phaseStack, byte 4: the file goes on behind the 0 records"},
        {"a table of phases that begins a word too early",
         [&] {
             std::string path = "ROOT";
             path.resize(131072);
             write_bytes(base_ + ".phaseStack", test::word(2) + path + test::word(1) + path);
         },
         2 * full + 10, ".phaseStack, byte 4: no path of phases stands here"},
        {"a foreign table of phases",
         [&] { write_bytes(base_ + ".phaseStack", test::word(0x7fffffff)); }, 2 * full + 10,
         ".phaseStack, byte 0: begins with the number 2147483647"},
        {"a block released twice", change([](Events& e) {
             e[7] = e[8] = {e[0].pointer, 0, Type::free_, e[7].id, memtrack::no_size, 0, 0};
             ++e[8].id;
         }),
         2 * full + 10, ".memT2, byte 324: event 262152 releases 0x400010, which is not held"},
        {"an address given out again", change([](Events& e) { e[9].pointer = 16; }), 2 * full + 10,
         ".memT2, byte 364: event 262153 is given 0x10, which is still held"},
        {"an impossible size", change([](Events& e) { e[9].size = memtrack::no_size; }),
         2 * full + 10, ".memT2, byte 364: event 262153 has a size that no block can have"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.name);
        write(0, full);
        write(1, full);
        write(2, more);
        test::write_phases(base_, {"ROOT"});
        one.damage();
        const test::ChildResult run =
            test::run_child({MEMTRACK_PROGRAM, {"report", "--json", memT(1), base_ + ".none"}, {}});
        EXPECT_EQ(run.exit_code, 1);
        EXPECT_NE(run.err.find(one.told), std::string::npos) << run.err;
        const test::JsonValue json = test::read_json(run.out);
        EXPECT_EQ(json["events"].number, static_cast<double>(one.events));
        EXPECT_LT(json["allocated"]["bytes"].number, 1e6);
        EXPECT_FALSE(json["complete"].flag);
        EXPECT_FALSE(json["ranks"][0]["complete"].flag);
        EXPECT_GE(json["problems"].items.size(), 3U); // this, and the two of the missing rank
        for (int i : {0, 1, 2}) {
            std::filesystem::remove(memT(i));
        }
    }
}

TEST_F(Damaged, WholeRunsHaveNothingToTell) {
    write(0, full);
    write(1, 1);
    write_bytes(base_ + ".memT01", "no file of a recorder's"); // nor these
    write_bytes(base_ + ".memT-1", "");
    Problems problems;
    memtrack::EventReader reader(base_, problems);
    memtrack::Batch batch;
    std::uint64_t next = 0;
    while (reader.next(batch)) {
        EXPECT_EQ(batch.first, next);
        EXPECT_EQ(batch.events[0].id, static_cast<std::int32_t>(next));
        next += batch.events.size();
    }
    EXPECT_EQ(next, full + 1U);
    EXPECT_FALSE(reader.next(batch)) << "again";
    EXPECT_EQ(reader.files(), 2);
    EXPECT_TRUE(problems.empty());
    const std::string far = "ROOT->" + std::string(3000, 'p');
    test::write_phases(base_ + "2", {"ROOT", far}); // all that a run without an event leaves
    EXPECT_EQ(memtrack::PhaseTable(base_ + "2", problems).path(1), far);
    EXPECT_TRUE(memtrack::take_figures(base_ + "2", problems).complete);
    memtrack::EventReader abandoned(base_, problems); // and gone with most of it unread
    EXPECT_TRUE(abandoned.next(batch));
}

// Ids wrap to the negative numbers; numbers go on.
TEST_F(Damaged, NumbersGoOnWhereIdsWrap) {
    constexpr int last = 16384; // the file that begins with id 2^31
    for (int number : {last - 1, last}) {
        Events all = events(number == last ? 5 : full, 0);
        for (std::size_t i = 0; i < all.size(); ++i) {
            all[i].id = static_cast<std::int32_t>(static_cast<std::uint32_t>(number) * full +
                                                  static_cast<std::uint32_t>(i));
        }
        write_transactions(memT(number), static_cast<int>(all.size()), all);
    }
    Problems problems;
    memtrack::EventReader reader(base_, problems);
    memtrack::Batch batch;
    std::uint64_t end = 0;
    while (reader.next(batch)) {
        end = batch.first + batch.events.size();
    }
    EXPECT_EQ(end, (std::uint64_t{1} << 31) + 5);
    EXPECT_EQ(problems.size(), 1U) << "only that files are missing before";
}

TEST_F(Damaged, PhaseEventsAreToldToo) {
    std::string event(128, '\0');
    event[0] = 'p';
    event[124] = 1;
    std::string whole;
    for (int i = 0; i < 50; ++i) {
        whole += event;
    }
    const auto name = [this](const char* thread_and_number) {
        return base_ + ".phase_thr" + thread_and_number;
    };
    for (const char* none : {"3", "3_", "x_1", "3_x"}) { // of a recorder's
        write_bytes(name(none), "");
    }
    write_bytes(name("3_0"), test::word(50) + whole);
    write_bytes(name("3_2"), test::word(2) + event + "cut");
    write_bytes(name("4_0"), "#include <stdio.h>\n");
    write_bytes(name("4_1"), test::word(50) + whole);
    std::filesystem::create_directory(name("4_2"));
    write_bytes(name("5_0"), test::word(1) + event);
    write_bytes(name("5_1"), test::word(1) + event);
    const test::ChildResult run =
        test::run_child({MEMTRACK_PROGRAM, {"phases", "--events", name("3_0")}, {}});
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 50 + 1 + 50 + 1 + 2);
    EXPECT_NE(run.out.find("\nINCOMPLETE: 5 problems with the files"), std::string::npos);
    for (const char* told : {"3_1, byte 0: the file is missing",
                             "3_2, byte 132: the file ends here, after 1 whole records",
                             "4_0, byte 0: begins with the number", "4_2, byte 0: cannot be opened",
                             "5_1, byte 0: not read, nor are others behind it"}) {
        EXPECT_NE(run.err.find(name(told)), std::string::npos) << run.err;
    }
}

TEST(Names, TellTheRun) {
    for (const char* file : {"a.memT0", "a.memT12", "a.phase_thr3_1", "a.phaseStack"}) {
        EXPECT_EQ(memtrack::base_name(file), "a");
    }
    for (const char* none : {"a", "a.memT", "a.memT1x", "a.memT01", "a.memT99999999999",
                             "a.phase_thr3", "a.phase_thr3_", "a.phase_thrx_1", ".phaseStack"}) {
        EXPECT_EQ(memtrack::base_name(none), none);
    }
}

// What the fuzzer begins with, and what it once failed on.
TEST(FuzzInputs, AreReadWithoutHarm) {
    for (const auto& input : std::filesystem::directory_iterator(MEMTRACK_INPUTS)) {
        std::ifstream file(input.path(), std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(file), {});
        test::read_fuzz_input(bytes);
    }
}

} // namespace
