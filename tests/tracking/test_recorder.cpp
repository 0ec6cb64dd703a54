// The recorder as a whole, in children: what it records, what it leaves out, what it writes, and what it
// says when it cannot. The files are read by the reading layer of memtrack, and once byte by byte.
#include "child.h"
#include "history.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

namespace {

using memtrack::Transaction;
using memtrack::Type;
using Environment = std::vector<std::pair<std::string, std::optional<std::string>>>;

const char separator = static_cast<char>(std::filesystem::path::preferred_separator);

class Recorder : public testing::Test {
protected:
    // Runs a command of the probe with tracking on, its files in a fresh folder.
    test::ChildResult track(std::vector<std::string> arguments, Environment more = {},
                            const char* program = "tracking_probe") {
        folder_ =
            test::scratch_folder(testing::UnitTest::GetInstance()->current_test_info()->name());
        Environment environment{{"KXA_MEM_TRACK", "0"}, // presence counts
                                {"KXA_MEM_OUTPUTDIR", folder_.substr(0, folder_.size() - 1)},
                                {"KXA_MEM_DBTRANS", std::nullopt},
                                {"KXQ_DLALLOCATOR", std::nullopt},
                                {"KXA_DEADBEEF", std::nullopt}};
        environment.insert(environment.end(), more.begin(), more.end());
        return test::run_child({test::sibling_program(program), std::move(arguments), environment});
    }

    std::string base() const { return folder_ + "unknownMemTrack"; }

    std::vector<Transaction> transactions() {
        std::vector<Transaction> all;
        memtrack::EventReader reader(base(), problems_);
        for (Transaction next; reader.next(next);) {
            EXPECT_EQ(static_cast<std::size_t>(next.id), all.size());
            all.push_back(next);
        }
        return all;
    }

    bool exists(const std::string& ending) const {
        return std::filesystem::exists(base() + ending);
    }
    std::uintmax_t size(const std::string& ending) const {
        return std::filesystem::file_size(base() + ending);
    }

    std::string folder_;
    memtrack::Problems problems_;
};

// The words that a child printed, by the first of each line.
std::map<std::string, std::uint64_t> numbers(const std::string& out) {
    std::map<std::string, std::uint64_t> result;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t space = line.rfind(' ');
        if (space != std::string::npos && std::isdigit(static_cast<unsigned char>(line.back()))) {
            result[line.substr(0, space)] = std::strtoull(&line[space + 1], nullptr, 10);
        }
    }
    return result;
}

std::string text(const Transaction& t, const memtrack::PhaseTable& phases) {
    std::ostringstream s;
    s << type_name(t.type) << ' ' << t.pointer << ' ' << t.old_pointer << ' '
      << static_cast<std::int64_t>(t.size) << ' ' << t.thread << ' '
      << (t.has_stack() ? phases.path(t.stack) : "-");
    return s.str();
}

TEST_F(Recorder, TellsEveryEventInItsOrder) {
    const test::ChildResult run = track({"plain"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    auto at = numbers(run.out);
    const memtrack::PhaseTable phases(base(), problems_);
    std::vector<std::string> found;
    for (const Transaction& t : transactions()) {
        found.push_back(text(t, phases));
    }
    const auto b = std::to_string(at["block"]), m = std::to_string(at["moved"]);
    const auto c = std::to_string(at["cleared"]), a = std::to_string(at["aligned"]);
    const std::string huge = std::to_string(SIZE_MAX / 2), one = " 0 ROOT->first",
                      two = " 0 ROOT->first->second";
    const std::vector<std::string> expected = {
        "malloc " + b + " 0 100" + one,
        "realloc " + m + " " + b + " 100000" + one,
        "malloc 0 0 " + huge + one,
        "realloc 0 " + m + " " + huge + one,
        "release " + m + " 0 -1" + one,
        "acquire " + m + " 0 -1" + one,
        "calloc " + c + " 0 77" + two,
        "malloc " + a + " 0 64" + two,
        "free 0 0 -1 0 -",
        "free " + m + " 0 -1 0 -",
        "free " + a + " 0 -1 0 -",
        "new " + a + " 0 8" + one,
        "valloc " + c + " 0 9" + one,
        "delete " + a + " 0 -1" + one,
    };
    EXPECT_EQ(found, expected);
    EXPECT_EQ(at["next"], expected.size());
    EXPECT_EQ(at["next at the release"], 10U) << "told while nobody else can have the address";
    EXPECT_TRUE(problems_.empty()) << problems_[0].sentence();
    EXPECT_NE(run.out.find("active 0 flag 3\ncached 3 1 1 1\n"), std::string::npos) << run.out;
    // At the end: a checked build tells of the refusals before.
    EXPECT_TRUE(run.err.ends_with(
        "rank -1  --  ROOT->first->second  --  ENTER PHASE  --  Monitored TransID = 6 --  "
        "threadId = 0\n"
        "rank 3  --  ROOT->first->second  --  EXIT PHASE  -- Monitored TransID = 10 -- "
        "threadId = 0\n"
        "look  --  Monitored TransId = 10\n"))
        << run.err;
    EXPECT_EQ(size(".phaseStack"), 4 + 3 * 131076U);
}

TEST_F(Recorder, WritesTheFormatsToTheByte) {
    ASSERT_EQ(track({"plain"}).exit_code, 0);
    ASSERT_EQ(size(".memT0"), 4 + 14 * 40U);
    const auto contents = [this](const std::string& ending) {
        std::ifstream file(base() + ending, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    const std::string file = contents(".memT0");
    EXPECT_EQ(file.substr(0, 4), std::string("\x0e\0\0\0", 4));
    // The second record: a realloc with id 1, 100000 bytes, of thread 0 in the second path.
    EXPECT_EQ(file.substr(44 + 16, 24),
              std::string("\4\0\0\0\1\0\0\0\xa0\x86\1\0\0\0\0\0\0\0\0\0\1\0\0\0", 24));
    // A free: no size, and the stack id of a slot that was never used.
    EXPECT_EQ(file.substr(4 + 8 * 40, 40),
              std::string(16, '\0') + std::string("\1\0\0\0\x8\0\0\0", 8) + std::string(8, '\xff') +
                  std::string(4, '\0') + std::string(4, '\xff'));
    const std::string table = contents(".phaseStack");
    EXPECT_EQ(table.substr(0, 4), std::string("\3\0\0\0", 4));
    for (std::size_t i = 0; i < 3; ++i) {
        const char id = table[4 + i * 131076];
        const char* const path = &table[8 + i * 131076];
        EXPECT_STREQ(path, id == 0 ? "ROOT" : id == 1 ? "ROOT->first" : "ROOT->first->second");
    }
}

TEST_F(Recorder, LeavesOutWhatWasAllocatedWhileStopped) {
    const test::ChildResult run = track({"stopped"});
    EXPECT_NE(run.out.find("active 1"), std::string::npos);
    std::vector<std::string> found;
    memtrack::History history;
    for (const Transaction& t : transactions()) {
        found.push_back(memtrack::type_name(t.type));
        history.add(t);
    }
    EXPECT_EQ(found, (std::vector<std::string>{"malloc", "malloc", "free", "free", "new", "delete",
                                               "realloc", "free", "free", "free"}));
    EXPECT_EQ(history.held().size(), 1U) << "the block whose resize was lost";
    EXPECT_EQ(history.unknown_releases(), 2U);
}

TEST_F(Recorder, WritesFullBuffersAndTheRest) {
    ASSERT_EQ(track({"fill", "0"}).out, "fatal 0 \n");
    EXPECT_FALSE(exists(".memT0"));
    EXPECT_EQ(size(".phaseStack"), 4 + 131076U); // ROOT
    ASSERT_EQ(track({"fill", "131072"}).out, "fatal 0 \n");
    EXPECT_EQ(size(".memT0"), 4 + 131072 * 40U);
    EXPECT_FALSE(exists(".memT1"));
    ASSERT_EQ(track({"fill", "131073"}).out, "fatal 0 \n");
    EXPECT_EQ(size(".memT1"), 44U);
    EXPECT_EQ(transactions().size(), 131073U);
    EXPECT_TRUE(problems_.empty());
}

TEST_F(Recorder, LosesNothingOfManyThreads) {
    for (const char* const heap : {"KXQ_CRTMALLOC", "KXQ_DLALLOCATOR"}) {
        const test::ChildResult run = track({"threads", "12", "6", "1500"}, {{heap, "1"}});
        ASSERT_EQ(run.exit_code, 0) << run.err;
        EXPECT_NE(run.out.find("fatal 0"), std::string::npos) << run.out;
        memtrack::History history;
        const memtrack::PhaseTable phases(base(), problems_);
        int highest = 0;
        for (const Transaction& t : transactions()) {
            history.add(t);
            highest = std::max(highest, t.thread);
            if (t.thread >= 64) {
                EXPECT_FALSE(t.type != Type::free_ && t.has_stack());
            } else if (t.type != Type::free_) {
                EXPECT_EQ(phases.path(t.stack).find("ROOT->step"), 0U) << phases.path(t.stack);
            }
        }
        EXPECT_EQ(highest, 72); // the loading thread is 0, and has no events
        EXPECT_TRUE(problems_.empty()) << problems_[0].sentence();
        std::map<std::string, std::uint64_t> expected = numbers(run.out), held;
        history.held().for_each([&](const memtrack::Block& block) {
            held["held " + std::to_string(block.address)] = block.size;
        });
        std::erase_if(expected, [](const auto& e) { return e.first.find("held") != 0; });
        EXPECT_EQ(held, expected);
        EXPECT_EQ(history.unknown_releases() + history.lost_releases(), 0U);
    }
}

TEST_F(Recorder, NumbersThreadsByFirstContact) {
    EXPECT_EQ(track({"identity"}).out,
              "main 0\nlast 3001\nsecond 3002\nthird 3003\nmain again 3004\nkept 1\nfatal 0 \n");
}

TEST_F(Recorder, TakesMemoryOfItsOwnUnseen) {
    const test::ChildResult run = track({"own-memory"});
    auto at = numbers(run.out);
    EXPECT_EQ(at["requests while recording"], 0U);
    EXPECT_EQ(at["requests at all"], 3 + 5 + 1U) << "tables, pools of texts, and a thread";
    // As well as this thread, what all threads share, and the tracker itself.
    EXPECT_EQ(at["given back"], at["requests at all"] + 3);
    EXPECT_EQ(at["ids"], 900000U) << "a request of the tracker's was recorded";
    EXPECT_NE(
        run.err.find("\n\nWARNING: Memory tracking. Forced to resize mem_StackHash.\nMemory use "
                     "from tracking code may change allocation patterns.\n\n"),
        std::string::npos);
    const std::vector<Transaction> all = transactions();
    ASSERT_EQ(all.size(), 900000U);
    for (const Transaction& t : all) { // no field is left from an earlier use of its slot
        const Type type = t.id % 3 == 0   ? Type::malloc_
                          : t.id % 3 == 1 ? Type::realloc_
                                          : Type::free_;
        ASSERT_EQ(t.type, type);
        ASSERT_EQ(t.pointer, all[0].pointer);
        ASSERT_EQ(t.old_pointer, type == Type::realloc_ ? t.pointer : 0);
        ASSERT_EQ(t.size, type == Type::malloc_    ? 16
                          : type == Type::realloc_ ? 8
                                                   : memtrack::no_size);
    }
    const memtrack::PhaseTable phases(base(), problems_);
    EXPECT_EQ(phases.size(), 51U);
    for (int depth = 0; depth <= 50; ++depth) { // they moved with their pool
        EXPECT_EQ(phases.path(depth).size(), 4 + static_cast<std::size_t>(depth) * 129);
    }
}

TEST_F(Recorder, SaysWhenTheDiskIsFull) {
    constexpr int whole = 4 + 131072 * 40;
    const std::string short_records = "AssertionFailed:numBytesWritten == m_itemsInCurrBuffer * "
                                      "sizeof(mem_Transaction)\n",
                      no_room = "fatal 2 AssertionFailed:m_itemsInCurrBuffer < BufferSize\n";
    test::ChildResult run = track({"full-disk", std::to_string(whole + 4 + 400 * 40 + 7)});
    EXPECT_EQ(run.out, "fatal 1 " + short_records + no_room + "ids 262144\n");
    EXPECT_EQ(transactions().size(), 131072U + 400);
    ASSERT_EQ(problems_.size(), 1U);
    EXPECT_NE(
        problems_[0].sentence().find("byte 16004: the file ends here, after 400 whole records"),
        std::string::npos)
        << problems_[0].sentence();

    problems_.clear();
    run = track({"full-disk", std::to_string(whole + 3)});
    EXPECT_EQ(run.out.find("fatal 1 AssertionFailed:numBytesWritten == sizeof(int)\n"), 0U);
    EXPECT_EQ(transactions().size(), 131072U);
    EXPECT_EQ(problems_.size(), 1U);

    problems_.clear();
    run = track({"full-disk", std::to_string(whole), "then there is room"});
    EXPECT_EQ(transactions().size(), 262144U) << "kept, and written at the end";
    EXPECT_TRUE(problems_.empty());

    if (std::filesystem::exists("/dev/full")) { // a disk that is really full
        std::filesystem::create_symlink("/dev/full", folder_ + "full.memT0");
        run = test::run_child({test::sibling_program("tracking_probe"),
                               {"names", folder_ + "full", "end"},
                               {{"KXA_MEM_TRACK", "1"}, {"KXA_MEM_OUTPUTDIR", std::nullopt}}});
        EXPECT_NE(run.out.find("fatal 1 AssertionFailed:numBytesWritten == sizeof(int)\n"),
                  std::string::npos)
            << run.out;
        EXPECT_NE(run.err.find("FileName: " + folder_ + "full.memT0  Is there room"),
                  std::string::npos)
            << run.err;
    }
}

TEST_F(Recorder, SaysWhenAFolderIsMissingOrVanishes) {
    test::ChildResult run = track({"fill", "131072"}, {{"KXA_MEM_OUTPUTDIR", "no/such/folder"}});
    const std::string name = std::string("no/such/folder") + separator + "unknownMemTrack.memT0";
    EXPECT_EQ(run.err.find("\nUnable to open memory tracking file.\n  FileName: " + name +
                           "  Does the output directory no/such/folder exist?\n"),
              0U)
        << run.err;
    EXPECT_NE(run.out.find("AssertionFailed:0"), std::string::npos);
    EXPECT_EQ(run.out.find("the thread's own error is lost"), std::string::npos) << run.out;
    run = track({"names", "no/such/base", "end"}, {{"KXA_MEM_OUTPUTDIR", std::nullopt}});
    EXPECT_EQ(run.err, "\nUnable to open memory tracking file.\n  FileName: no/such/base.memT0");

    const std::string folder = test::scratch_folder("vanishing") + "out";
    std::filesystem::create_directories(folder);
    run = track({"vanishing-folder", folder}, {{"KXA_MEM_OUTPUTDIR", folder}});
    EXPECT_EQ(run.out, "fatal 1 AssertionFailed:0\n");
    EXPECT_NE(run.err.find("unknownMemTrack.memT1"), std::string::npos);
    memtrack::EventReader reader(folder + ".gone" + separator + "unknownMemTrack", problems_);
    int read = 0;
    for (Transaction t; reader.next(t); ++read) {
    }
    EXPECT_EQ(read, 131072);
}

TEST_F(Recorder, PutsTheFolderBeforeTheLastElement) {
    const std::string given = std::string("a") + separator + "b";
    for (const bool with_folder : {true, false}) {
        const std::string root = test::scratch_folder("names");
        std::filesystem::create_directories(root + "a" + separator + "d");
        const std::optional<std::string> folder =
            with_folder ? std::optional<std::string>("d") : std::nullopt;
        const auto before = std::filesystem::current_path();
        std::filesystem::current_path(root);
        const test::ChildResult run =
            track({"names", given, "end"}, {{"KXA_MEM_OUTPUTDIR", folder}});
        std::filesystem::current_path(before);
        const std::string made =
            root + "a" + separator + (with_folder ? std::string("d") + separator : "") + "b";
        EXPECT_TRUE(std::filesystem::exists(made + ".memT0")) << run.out << run.err;
        EXPECT_TRUE(std::filesystem::exists(made + ".phaseStack"));
    }
}

TEST_F(Recorder, RefusesNamesThatAreTooLong) {
    const auto run = [this](const std::string& length, std::size_t folder) {
        return track(
            length.empty() ? std::vector<std::string>{"names"}
                           : std::vector<std::string>{"names", length},
            {{"KXA_MEM_OUTPUTDIR",
              folder == 0 ? std::nullopt : std::optional<std::string>(std::string(folder, 'd'))}});
    };
    const std::string fine = "flag 2\nfatal 0 \n", refused = "flag 1\nfatal 1 AssertionFailed:0\n";
    EXPECT_EQ(run("", 1023).out, fine);
    const test::ChildResult long_folder = run("", 1024);
    EXPECT_EQ(long_folder.out, refused);
    EXPECT_EQ(long_folder.err, "ERROR: Name of output directory given for memory tracking is too "
                               "long.\nName must be under 1024 characters.\n\n");
    EXPECT_EQ(run("2036", 0).out, fine);
    const test::ChildResult long_name = run("2037", 0);
    EXPECT_EQ(long_name.out, refused);
    EXPECT_EQ(long_name.err, "ERROR: Output file names are too long in memory tracking code.\n");
    EXPECT_EQ(run("1036", 1000).out, fine);
    EXPECT_EQ(run("1037", 1000).out, refused);
}

TEST_F(Recorder, NeedsAConverterAtItsEnd) {
    test::ChildResult run = track({"no-converter"});
    EXPECT_TRUE(run.crashed);
    EXPECT_NE(run.err.find("m_toOs, file mem_ToOs, line 22"), std::string::npos) << run.err;
    run = track({"no-converter", "narrow"});
    EXPECT_TRUE(run.crashed);
    EXPECT_NE(run.err.find("m_toOs, file mem_ToOs, line 28"), std::string::npos) << run.err;
}

TEST_F(Recorder, EndsTheProcessAtAPhaseNameThatIsTooLong) {
    const test::ChildResult run = track({"long-phase"});
    EXPECT_TRUE(run.crashed);
    EXPECT_EQ(run.out, "fine\n");
    EXPECT_NE(run.err.find("strlen(phaseName) < e_maxRoutineNameSize"), std::string::npos)
        << run.err;
}

TEST_F(Recorder, AnnouncesTheNextOfItsListAlone) {
    const auto announced = [this](const std::string& ids) {
        return track({"announce"}, {{"KXA_MEM_DBTRANS", ids}}).err;
    };
    const auto line = [](int id, const char* what) {
        return "mem_Tracker  --  transaction " + std::to_string(id) + "  --  " + what + "\n";
    };
    EXPECT_EQ(announced("3,1,2,4,5,6,7,8"),
              line(1, "free") + line(2, "new") + line(3, "delete") + line(4, "realloc") +
                  line(5, "calloc") + line(6, "valloc") + line(7, "release") + line(8, "acquire"));
    EXPECT_EQ(announced("9,10"), line(10, "free")) << "a malloc moves on without a message";
    EXPECT_EQ(announced("2,2,3"), line(2, "new")) << "twice in the list blocks the rest";
    EXPECT_EQ(announced("-1,2"), "") << "a passed id blocks the rest";
    std::string many = "0";
    for (int i = 1; i < 51; ++i) {
        many += ",0";
    }
    EXPECT_EQ(announced(many),
              "memTracker  --  Too many debug transactions specified. First 50 will be used.\n");
}

TEST_F(Recorder, ServesPlainEntriesOnAndOff) {
    const std::string last = "fatal 0 \n"
                             "fatal 1 AssertionFailed:length + 1 < MEM_TRACKER_PHASE_MAXSTRLEN\n"
                             "in mem_Tracker_EnterPhase\n"
                             "fatal 2 AssertionFailed:length + 1 < MEM_TRACKER_PHASE_MAXSTRLEN\n"
                             "in mem_Tracker_PrintTransaction\n"
                             "checker 0\n";
    const auto enter = [](const std::string& path, const char* what = "ENTER PHASE  --") {
        return "rank -1  --  " + path + "  --  " + what +
               "  Monitored TransID = 0 --  threadId = 0\n";
    };
    test::ChildResult run = track({"plain-entries"});
    EXPECT_EQ(run.out, "enter 0\nexit 0\n" + last);
    EXPECT_EQ(run.err, enter("ROOT->c") + enter("ROOT->c->numerical") +
                           "nume  --  Monitored TransId = 0\n" + enter("ROOT->c->") +
                           "rank -1  --  ROOT->c  --  EXIT PHASE  -- Monitored TransID = 0 -- "
                           "threadId = 0\nnumerical" +
                           std::string(109, '#') + "  --  Monitored TransId = 0\n")
        << "a text that is too long is cut where the fatal error returns";
    run = track({"plain-entries", "off"}, {{"KXA_MEM_TRACK", std::nullopt}});
    EXPECT_EQ(run.out, "active 0\nrequests 1\nenter 0\nexit 0\n" + last + "flag 3\n");
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(Recorder, ServesFortran) {
    const test::ChildResult run = track({}, {}, "fortran_phases"); // on the shared library
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err,
              "rank -1  --  ROOT->assembly  --  ENTER PHASE  --  Monitored TransID = 0 --  "
              "threadId = 0\nfrom Fortran  --  Monitored TransId = 7\n"
              "rank -1  --  ROOT->assembly  --  EXIT PHASE  -- Monitored TransID = 7 -- "
              "threadId = 0\n");
    const memtrack::PhaseTable phases(base(), problems_);
    EXPECT_EQ(phases.path(4), "ROOT->assembly->element 3");
    memtrack::History history;
    for (const Transaction& t : transactions()) {
        history.add(t);
    }
    EXPECT_EQ(history.events(), 7U);
    EXPECT_EQ(history.held_bytes(), 3000U);
    EXPECT_TRUE(problems_.empty());
}

TEST_F(Recorder, HasNoPhasesForTheSixtyFifthThread) {
    EXPECT_EQ(track({"late-thread"}).out, "fatal 2 AssertionFailed:threadId < MEM_MAX_THREADS\n");
    const auto all = transactions();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].thread, 64);
}

TEST_F(Recorder, EndsTheProcessWhenThereAreTooManyPaths) {
    const std::pair<const char*, const char*> ways[] = {{"overfill", "all 1\n"},
                                                        {"overfill-tracker", "full\njoined\n"}};
    for (const auto& [command, out] : ways) {
        const test::ChildResult run = track({command});
        EXPECT_EQ(run.exit_code, 0);
        EXPECT_EQ(run.out, out);
        EXPECT_NE(run.err.find(
                      "mem_PtrHash::Add  --  ERROR  --  Stack hash table has been overfilled.\n"),
                  std::string::npos);
    }
}

TEST_F(Recorder, HasADebuggerThatAnnouncesItsLife) {
    const test::ChildResult run = track({"debugger"});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.out, "Finalizing\nInitializing\nCreated mem_Debugger\nInitializing\nFinalizing\n"
                       "Destroyed mem_Debugger\nFinalizing\n");
}

} // namespace
