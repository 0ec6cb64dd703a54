// The program as a user calls it: what its commands tell of a small run whose figures are known, exit
// statuses, output files, and JSON that a strict reader takes.
#include "export/formats.h"
#include "json.h"
#include "output.h"
#include "recording.h"

#include <gtest/gtest.h>

namespace {

using memtrack::no_size;
using test::JsonValue;

class Program : public testing::Test {
protected:
    std::string folder_ = test::scratch_folder("program");
    std::string base_ = folder_ + "run";

    void SetUp() override { write(base_, 1000); }

    // 1000 bytes of "work" and 24 of the root are held at the peak, `left` and 24 at the end.
    static void write(const std::string& base, std::uint64_t left) {
        test::write_recording(base,
                              {
                                  {0x1000, 0, Type::malloc_, 0, 24, 0, 0},
                                  {0x2000, 0, Type::calloc_, 1, left / 2, 1, 2},
                                  {0x3000, 0x2000, Type::realloc_, 2, left, 1, 2},
                                  {0x4000, 0, Type::malloc_, 3, 5000, 0, 1},
                                  {0x4000, 0, Type::free_, 4, no_size, 1, -1},
                                  {0, 0, Type::malloc_, 5, 1 << 30, 0, 1},
                                  {0x1000, 0, Type::release, 6, no_size, 0, 0},
                              },
                              {"ROOT", "ROOT->q\"uo\\te\x01\xff", "ROOT->w\xc3\xb6rk"});
    }

    test::ChildResult call(std::vector<std::string> arguments) const {
        return test::run_child({MEMTRACK_PROGRAM, std::move(arguments), {}});
    }
    JsonValue json(std::vector<std::string> arguments, int status = 0) const {
        arguments.emplace_back("--json");
        const test::ChildResult run = call(arguments);
        EXPECT_EQ(run.exit_code, status) << run.err;
        EXPECT_TRUE(status != 0 || run.err.empty()) << run.err;
        return test::read_json(run.out);
    }
    std::string events(std::vector<std::string> filter) const {
        filter.insert(filter.begin(), {"events", base_});
        std::string numbers;
        const JsonValue all = json(filter);
        for (const JsonValue& event : all["events"].items) {
            numbers += event["event"].text;
        }
        return numbers;
    }
    using Type = memtrack::Type;
};

TEST_F(Program, TellsTheFiguresOfARun) {
    const JsonValue report = json({"report", base_});
    EXPECT_TRUE(report["complete"].flag);
    EXPECT_EQ(report["events"].text, "7");
    EXPECT_EQ(report["events_by_type"]["malloc"].text, "3");
    EXPECT_EQ(report["peak"]["bytes"].text, "6024");
    EXPECT_EQ(report["peak"]["event"].text, "3");
    EXPECT_EQ(report["peak"]["phase"].text, "ROOT->q\\\"uo\\\\te\\u0001\xEF\xBF\xBD");
    EXPECT_EQ(report["left"]["bytes"].text, "1024");
    EXPECT_EQ(report["temporary"].text, "1");
    EXPECT_EQ(report["failed"].text, "1");
    EXPECT_EQ(report["sizes"][0]["from"].text, "16");
    EXPECT_EQ(report["sizes"][0]["to"].text, "31");
    EXPECT_EQ(report["threads"][1]["released_foreign"].text, "1");

    const JsonValue leaks = json({"leaks", base_});
    EXPECT_EQ(leaks["phases"][0]["phase"].text, "ROOT->w\xc3\xb6rk");
    EXPECT_EQ(leaks["blocks"][0]["address"].text, "0x000000003000");
    EXPECT_EQ(leaks["blocks"].items.size(), 2U);
    EXPECT_EQ(json({"leaks", base_, "-n", "1"})["blocks"].items.size(), 1U);

    const JsonValue peak = json({"peak", base_});
    EXPECT_EQ(peak["blocks"].items.size(), 3U);
    EXPECT_EQ(peak["blocks"][0]["bytes"].text, "5000");
    EXPECT_EQ(peak["sizes"].items.size(), 3U);

    const JsonValue phases = json({"phases", base_});
    const JsonValue& root = phases["phases"][0];
    EXPECT_EQ(root["own"]["left"]["bytes"].text, "24");
    EXPECT_EQ(root["with_below"]["allocated"]["bytes"].text, "6524");
    EXPECT_EQ(root["children"][0]["peak_within_bytes"].text, "1024");
    EXPECT_EQ(root["children"][1]["held_at_entry_bytes"].text, "1024");

    const test::ChildResult text =
        call({"report", base_ + ".memT0", base_ + ".phaseStack"}); // one run
    for (const char* words : {"7 events in 1 file, 2 threads, 3 phases\n",
                              "Not released: 1.00 KiB (1 024 bytes) in 2 blocks\n",
                              "  1000 bytes   97.7 %            1 block   ROOT->w\xc3\xb6rk\n"}) {
        EXPECT_NE(text.out.find(words), std::string::npos) << words << text.out;
    }
}

TEST_F(Program, PutsTheSameInWords) {
    const std::string odd = folder_ + "odd", bare = folder_ + "bare", large = folder_ + "large";
    test::write_recording(odd, {{0x2000, 0, Type::malloc_, 0, 100, 0, -1},
                                {0, 0x2000, Type::realloc_, 1, 1 << 30, 0, 0},
                                {0x3000, 0x2000, Type::realloc_, 2, 1, 0, 0},
                                {0x2000, 0, Type::free_, 3, no_size, 70, 0},
                                {0x3000, 0, Type::delete_, 4, no_size, 0, 0},
                                {0x3000, 0, Type::acquire, 5, no_size, 0, 0},
                                {0, 0, Type::free_, 6, no_size, 0, 0},
                                {0x2000, 0, Type::malloc_, 7, 10, 0, 0},
                                {0x2000, 0, Type::new_, 8, 0, 0, 0}});
    test::write_recording(bare, {{0x3000, 0, Type::acquire, 0, no_size, 0, 0}});
    test::write_recording(large, {{0x100000, 0, Type::malloc_, 0, 1 << 20, 0, 0},
                                  {0x900000, 0, Type::malloc_, 1, 3 << 20, 0, 0},
                                  {0, 0, Type::malloc_, 2, 7 << 20, 0, 0},
                                  {0, 0, Type::malloc_, 3, 7 << 20, 0, 0}});
    std::string phase_events = test::word(5);
    for (const char* name : {"out", "in", "", "", ""}) {
        std::string event = name;
        event.resize(128);
        event[124] = *name != '\0' ? 1 : 0;
        phase_events += event;
    }
    test::write_bytes(base_ + ".phase_thr3_0", phase_events);
    const std::pair<std::vector<std::string>, std::vector<std::string>> told[] = {
        {{"phases", "-n", "2", base_},
         {"      2    0 bytes    5.88 KiB    24 bytes   6.37 KiB    24 bytes   5.88 KiB    24 "
          "bytes "
          "  1.00 KiB"
          "    24 bytes   1.00 KiB  ROOT\n"
          "      1   24 bytes    1.00 KiB    1.46 KiB   1.46 KiB  1000 bytes 1000 bytes  1000 "
          "bytes "
          "1000 bytes"
          "  1000 bytes 1000 bytes    w\xc3\xb6rk\n"
          "  ... and 1 more (-n 0 shows all)\n"}},
        {{"phases", "--events", base_},
         {"thread 3   before event          0  enter out\n"
          "thread 3   before event          0    enter in\n"
          "thread 3   before event          0    exit \n"
          "thread 3   before event          0  exit \n"
          "thread 3   before event          0  exit \n"}},
        {{"phases", "--events", "-n", "1", odd, base_},
         {odd + ".phase_thr*: only clients with phase buffers of their own write them.\n" + base_ +
          ":\nthread 3   before event          0  enter out\n  ... and 4 more (-n 0 shows all)\n"}},
        {{"peak", "-n", "1", base_},
         {"Peak: 5.88 KiB (6 024 bytes) in 3 blocks, at event 3\n"
          "      (malloc of 4.88 KiB, thread 0, ROOT->q\"uo\\te?\xff)\n\n"
          "By phase:\n"
          "      4.88 KiB   83.0 %            1 block   ROOT->q\"uo\\te?\xff\n"
          "  ... and 2 more (-n 0 shows all)\n\n"
          "By thread:\n"
          "      4.91 KiB   83.4 %  thread 0\n"
          "    1000 bytes   16.6 %  thread 1\n\n"
          "By size, in bytes:\n"
          "              16 - 31                        1      24 bytes  "
          "##############################\n"}},
        {{"peak", odd}, {"By thread:\n     100 bytes  100.0 %  thread 0\n\n"}},
        {{"peak", bare}, {"Peak: 0 bytes in 0 blocks\n"}},
        {{"replay", "-r", "1", base_},
         {": 7 events of 2 threads, replayed on one thread in the order of their ids; 5.88 KiB "
          "held "
          "at the peak\n"
          "  1 request was refused when it was recorded, and is left out\n"
          "Each replay in a new process; medians of 1; pages of blocks touched\n\n",
          "\nheap: its own highest footprint, which a limit has to be above: 65 536 bytes\n"}},
        {{"replay", "-r", "1", "--no-touch", "--on", "heap:limit=128KiB", "--on", "heap:limit=2MiB",
          "--on", "heap:granularity=3", large, base_},
         {"2 requests were refused when they were recorded, and are left out\n",
          "pages of blocks not touched; sums over the ranks\n",
          "\nheap:granularity=3 cannot be had with these options\n",
          "\nheap:limit=128KiB: 2 requests were refused, and the replay went on without\n",
          "\nheap:limit=2MiB: 1 request was refused, and the replay went on without\n"}},
        {{"replay", "-r", "1", "--on", "crt", bare}, {"             -              -         0\n"}},
        {{"report", odd, odd, odd},
         {"INCOMPLETE: 6 problems with the files", "Released without being held: 3\n",
          "Addresses given out again while held: 3\n",
          "\n               0 - 0                         3       0 bytes  ####"}},
        {{"diff", odd, base_, "-n", "1"},
         {"not released                  0 bytes         1.00 KiB        +1.00 KiB  from 0\n",
          "\nBy phase, what changed:\n     at the peak     not released        allocated\n"
          "       +4.88 KiB                =        +4.88 KiB  ROOT->q\"uo\\te?\xff\n"
          "  ... and 3 more (-n 0 shows all)\n"}},
        {{"events", odd},
         {"         0  thread 0   malloc   0x000000002000  100 bytes  (no phase)\n"
          "         1  thread 0   realloc  0x000000000000 from 0x000000002000  1073741824 bytes  "
          "refused  ROOT\n"
          "         2  thread 0   realloc  0x000000003000 from 0x000000002000  1 byte, before 100 "
          "of event 0  ROOT\n"
          "         3  thread 70  free     0x000000002000  not held  -\n"
          "         4  thread 0   delete   0x000000003000  1 byte of event 2  ROOT\n"
          "         5  thread 0   acquire  0x000000003000  ROOT\n"
          "         6  thread 0   free     0x000000000000  -\n"
          "         7  thread 0   malloc   0x000000002000  10 bytes  ROOT\n"
          "         8  thread 0   new      0x000000002000  0 bytes  ROOT\n"}},
        {{"block", "0X2050", odd, "-n", "1"}, // the refused resize is one of them
         {"malloc   0x000000002000  100 bytes  (no phase)\n  ... and 2 more (-n 0 shows all)\n"
          "No block is held there at the end.\n"}},
        {{"block", "1", base_}, {"No block of this run was ever at 0x000000000001.\n"}},
    };
    for (const auto& [arguments, words] : told) {
        const test::ChildResult run = call(arguments);
        for (const std::string& some : words) {
            EXPECT_NE(run.out.find(some), std::string::npos) << some << "is not in\n"
                                                             << run.out << run.err;
        }
    }
    const JsonValue block = json({"block", "0x2000", odd}, 1)["events"];
    EXPECT_TRUE(block[1]["refused"].flag);
    EXPECT_EQ(block[2]["old_address"].text, "0x000000002000");
    EXPECT_EQ(block[2]["gone"]["bytes"].text, "100");
    EXPECT_EQ(block[3].members.count("phase"), 0U);
    EXPECT_EQ(json({"events", odd, "--phase", "ROOT", "--id", "2..4"})["events"].items.size(), 2U);
    EXPECT_EQ(json({"phases", "--events", base_})["events"][1]["name"].text, "in");
    EXPECT_EQ(json({"peak", bare})["peak"].members.count("event"), 0U);
    const JsonValue replay = json({"replay", "-r", "1", "--on", "crt", bare});
    EXPECT_EQ(replay["allocators"][0].members.count("fragmentation"), 0U);
}

TEST_F(Program, FiltersEvents) {
    EXPECT_EQ(events({}), "0123456");
    EXPECT_EQ(events({"--id", "2..4"}), "234");
    EXPECT_EQ(events({"--id", "5.."}), "56");
    EXPECT_EQ(events({"--thread", "1"}), "124");
    EXPECT_EQ(events({"--type", "free,realloc", "--type", "calloc"}), "124");
    EXPECT_EQ(events({"--phase", "ROOT->w\xc3\xb6rk"}), "12");
    EXPECT_EQ(events({"--phase", "ROOT"}), "0123456"); // the free by its block
    EXPECT_EQ(events({"--address", "0x2000"}), "12");
    EXPECT_EQ(events({"--address", "0x4000.."}), "34");
    EXPECT_EQ(events({"--size", "..24"}), "0");
    EXPECT_EQ(events({"--size", "1000..5KiB"}), "234");
    EXPECT_EQ(events({"-n", "2", "--type", "malloc"}), "03");
    EXPECT_EQ(call({"events", base_, "--phase", "nowhere"}).err,
              "memtrack: no event passes the filters\n");
    const JsonValue block = json({"block", "0x2001", base_});
    EXPECT_EQ(block["events"].items.size(), 2U);
    EXPECT_FALSE(block["held"].flag);
    EXPECT_TRUE(json({"block", "0x33e7", base_})["held"].flag);
    EXPECT_TRUE(json({"block", "0x33e8", base_})["events"].items.empty());
    EXPECT_NE(call({"block", "4096", base_}).out.find("Not released: 24 bytes at 0x000000001000"),
              std::string::npos);
}

TEST_F(Program, ComparesRunsAndKeepsAGate) {
    const std::string other = folder_ + "other";
    write(other, 1100);
    const JsonValue diff = json({"diff", base_, other});
    EXPECT_EQ(diff["figures"]["peak_bytes"]["b"].text, "6124");
    EXPECT_EQ(diff["phases"].items.size(), 1U);
    EXPECT_EQ(diff["phases"][0]["a"]["left"]["bytes"].text, "1000");
    const auto status = [&](const std::string& a, const std::string& b, const std::string& gate) {
        const test::ChildResult run = call({"diff", "--fail-if", gate, a, b});
        EXPECT_EQ(run.err.find(gate) != std::string::npos, run.exit_code != 0) << run.err;
        return run.exit_code;
    };
    EXPECT_EQ(status(base_, other, "leaks"), 3);
    EXPECT_EQ(status(other, base_, "leaks"), 0);
    EXPECT_EQ(status(base_, base_, "leaks"), 0);
    EXPECT_EQ(status(base_, other, "peak+1%"), 3);
    EXPECT_EQ(status(base_, other, "peak+2%"), 0);
    EXPECT_EQ(status(base_, other, "peak+99"), 3);
    EXPECT_EQ(status(base_, other, "peak+1KiB"), 0);
    EXPECT_EQ(status(base_, other, "speed+1%"), 2);
    EXPECT_EQ(status(base_, other, "peak+x%"), 2);
    EXPECT_EQ(json({"diff", base_, other, "--fail-if", "peak+50%", "--fail-if", "leaks"},
                   3)["failed_gates"][0]
                  .text,
              "leaks");
    EXPECT_EQ(call({"diff", base_, folder_ + "none", "--fail-if", "leaks"}).exit_code, 1);
    // Ranks: sums of 2 x 1000 and of 1000 + 1100, each with 24 of the root.
    const JsonValue jobs =
        json({"diff", base_, base_, "--to", other + ".memT0", other + ".phaseStack", base_});
    EXPECT_EQ(jobs["figures"]["left_bytes"]["a"].text, "2048");
    EXPECT_EQ(jobs["figures"]["left_bytes"]["b"].text, "2148");
    EXPECT_TRUE(jobs["b"][0].text.ends_with("other")) << jobs["b"][0].text;
    EXPECT_EQ(call({"diff", base_, base_, "--to", other, base_, "--fail-if", "peak"}).exit_code, 3);
    EXPECT_EQ(call({"diff", base_, "--to", other, base_, "--fail-if", "leaks+1KiB"}).exit_code, 3);
}

// At the peak both hold the same.
TEST_F(Program, ComparesWhatEndsOtherwise) {
    test::Events events = {{0x1000, 0, Type::malloc_, 0, 100, 0, 0},
                           {0x2000, 0, Type::malloc_, 0, 100, 0, 1}};
    test::write_recording(base_, events);
    const test::Events more = {{0x1000, 0, Type::free_, 0, no_size, 0, 0},
                               {0x3000, 0, Type::malloc_, 0, 50, 0, 1},
                               {0x3000, 0, Type::free_, 0, no_size, 0, 0}};
    events.insert(events.end(), more.begin(), more.end());
    test::write_recording(folder_ + "other", events);
    const JsonValue phases = json({"diff", base_, folder_ + "other"})["phases"];
    ASSERT_EQ(phases.items.size(), 2U);
    EXPECT_EQ(phases[0]["b"]["left"]["bytes"].text, "0");
    EXPECT_EQ(phases[1]["b"]["allocated"]["bytes"].text, "150");
}

TEST_F(Program, MergesRanks) {
    const std::string other = folder_ + "other";
    write(other, 2000);
    const JsonValue report = json({"report", base_, other});
    EXPECT_EQ(report["events"].text, "14");
    EXPECT_EQ(report["left"]["bytes"].text, "3048");
    EXPECT_EQ(report["peak"]["bytes"].text, "13048");
    EXPECT_EQ(report["temporary"].text, "2");
    EXPECT_EQ(report["threads"][1]["released_foreign"].text, "2");
    EXPECT_EQ(report["phases"].items.size(), 3U);
    const JsonValue& left = report["over_ranks"]["left_bytes"];
    EXPECT_EQ(left["minimum"].text + " " + left["mean"].text + " " + left["maximum"].text,
              "1024 1524 2024");
    EXPECT_TRUE(left["maximum_of"].text.ends_with("other"));
    const JsonValue root = json({"phases", base_, other})["phases"][0];
    EXPECT_EQ(root["events"].text, "4");
    EXPECT_EQ(root["entries"].text, "4"); // by two threads of each
    EXPECT_EQ(root.members.count("first_event"), 0U);
    const JsonValue leaks = json({"leaks", base_, other});
    EXPECT_EQ(leaks["blocks"][0]["bytes"].text, "2000");
    EXPECT_EQ(leaks["blocks"].items.size(), 4U);
    EXPECT_NE(call({"report", base_, other}).out.find("\nOver 2 ranks:"), std::string::npos);
    test::Events many; // the peak far on, and at the end
    for (unsigned i = 1; i <= 20'000; ++i) {
        many.push_back({16U * i, 0, Type::malloc_, 0, i, 0, 0});
    }
    test::write_recording(other, many);
    EXPECT_NE(call({"peak", "-n", "1", base_, other})
                  .out.find("\nBy block:\n     19.53 KiB at 0x00000004e200  made by event 19999, "
                            "thread 0, ROOT  of " +
                            other),
              std::string::npos);
}

TEST_F(Program, WritesFilesAndRefusesToWriteOver) {
    const std::string file = folder_ + "out.json";
    test::write_bytes(file + ".part", "of somebody else");
    test::ChildResult run = call({"events", base_, "--json", "-o", file});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "Wrote " + file + "\n");
    const auto size = std::filesystem::file_size(file);
    run = call({"leaks", base_, "-o", file});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_NE(run.err.find(file + " is there already"), std::string::npos) << run.err;
    EXPECT_EQ(std::filesystem::file_size(file), size);
    run = call({"leaks", base_, "-q", "-o", file, "--force"});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_NE(std::filesystem::file_size(file), size);
    EXPECT_EQ(call({"events", base_, "-o", folder_ + "no/such/folder"}).exit_code, 2);
    EXPECT_EQ(call({"leaks", base_, "-f", "-o", folder_}).exit_code, 2);
    EXPECT_EQ(std::filesystem::file_size(file + ".part"), 16U);
}

TEST(Texts, AreFitForTerminalsAndReaders) {
    std::string text;
    memtrack::Output output(text);
    output.print("%s\n", "a\x1b[2J\x7f\xc3\xb6");
    output.finish(false);
    EXPECT_EQ(text, "a?[2J?\xc3\xb6\n");
    text.clear();
    memtrack::Output(text).print("%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(text, std::string(5000, 'x'));
    const std::pair<const char*, std::size_t> sequences[] = {{"a", 1},
                                                             {"\xc1\xbf", 0},
                                                             {"\xc2\x80", 2},
                                                             {"\xc2(", 0},
                                                             {"\xe2\x82", 0},
                                                             {"\xe0\x9f\xbf", 0},
                                                             {"\xe0\xa0\x80", 3},
                                                             {"\xed\x9f\xbf", 3},
                                                             {"\xf0\x8f\xbf\xbf", 0},
                                                             {"\xf0\x90\x80\x80", 4},
                                                             {"\xf4\x8f\xbf\xbf", 4},
                                                             {"\xf4\x90\x80\x80", 0},
                                                             {"\xf5\x80\x80\x80", 0}};
    for (const auto& [bytes, length] : sequences) {
        EXPECT_EQ(memtrack::utf8_length(bytes), length) << bytes;
    }
    EXPECT_EQ(memtrack::json_quoted("\x1f\xed\xa0\x80"),
              "\"\\u001f\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"");
    EXPECT_EQ(memtrack::human_bytes(1048540), "1.00 MiB"); // not 1024.0 KiB
    EXPECT_EQ(memtrack::exporting::line_text(std::string(9, '\xff') + "\n", "", '_', 8),
              "????????...");
    EXPECT_EQ(memtrack::human_bytes(1023), "1023 bytes");
}

TEST_F(Program, KnowsItsUsage) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {},
             {"report"},
             {"nothing", base_},
             {"--nothing"},
             {"report", base_, "--nothing"},
             {"report", base_, "-n", "-1"},
             {"report", base_, "-n", ""},
             {"diff", base_},
             {"diff", base_, base_, base_},
             {"block", "here", base_},
             {"block", "0", base_},
             {"events", base_, "--id", "9..5"},
             {"events", base_, "--size", "99999999999GiB"},
             {"events", base_, "--type", "mmap"},
             {"events", base_, "--id", "0x"},
             {"events", base_, base_},
             {"diff", base_, base_, "--fail-if", "peak+%"},
             {"diff", base_, base_, "--fail-if", "peak+5x%"},
             {"diff", base_, base_, "--fail-if", "peak+-5%"},
             {"diff", base_, base_, "--fail-if", "peak+1e10%"},
             {"export", base_, base_, "--format", "heaptrack"},
             {"replay", base_, "--on", "heap:size=5"},
         }) {
        const test::ChildResult run = call(arguments);
        EXPECT_EQ(run.exit_code, 2) << run.out;
        EXPECT_FALSE(run.err.empty());
        EXPECT_EQ(run.out, "");
    }
    test::write_bytes(base_ + ".none.txt", "");
    EXPECT_EQ(call({"report", folder_ + "no/such/run"}).exit_code, 1);
    const test::ChildResult absent = call({"report", base_ + ".none", base_ + ".nothing"});
    EXPECT_EQ(absent.exit_code, 1);
    EXPECT_EQ(absent.out, ""); // no page of zeros
    EXPECT_NE(absent.err.find("there is no recording " + base_ + ".none"), std::string::npos);
    const test::ChildResult help = call({"--help"});
    EXPECT_EQ(help.exit_code, 0);
    for (const char* command : {"report", "leaks", "peak", "phases", "events", "block", "diff"}) {
        EXPECT_NE(help.out.find(std::string("\n  ") + command), std::string::npos);
        EXPECT_EQ(call({command, "--help"}).exit_code, 0);
    }
    EXPECT_EQ(call({"--version"}).out, "memtrack " MEMTRACK_VERSION "\n");
}

} // namespace
