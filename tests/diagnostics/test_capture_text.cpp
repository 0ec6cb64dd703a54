// The text of a capture, to the column, over a debug help that the test plays: its frames are a table.
#include "KXMBasMemDebug.h"
#include "capture_text.h"

#include "platform/os.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

// The texts of walks that fail are not given back, by design.
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
using LeaksByDesign = __lsan::ScopedDisabler;
#else
struct LeaksByDesign {
    LeaksByDesign() {}
};
#endif

namespace {

using test::line;
using test::taken;
using Text = std::optional<std::string>;

struct Frame {
    std::string symbol;    // empty: unknown
    std::string file = ""; // empty: unknown; "/" becomes the system's separator
    std::string module = "solver.exe";
    bool based = true;
    bool framed = true;
    bool counted = true; // has an instruction's address
};

std::vector<Frame> frames;
std::size_t walked = 0;
std::size_t readied = 2; // walks before the first frame
std::string separated;

const Frame& at(std::uint64_t address) {
    return frames.at(address - 1);
}

int walk(std::uint32_t machine, void*, void*, void* record, void*, void* read,
         KXMBasCallStack::FunctionTableAccessFunction access,
         KXMBasCallStack::ModuleBaseFunction base, void* translate) {
    auto& frame = *static_cast<os::StackFrame*>(record);
    EXPECT_EQ(machine, 34404U);
    EXPECT_EQ(read, nullptr);
    EXPECT_EQ(translate, nullptr);
    EXPECT_EQ(access, KXMBasCallStack::s_SymFunctionTableAccess);
    EXPECT_EQ(base, KXMBasCallStack::s_SymGetModuleBase);
    if (walked == 0) {
        EXPECT_EQ(frame.pc.mode, 3U);
        EXPECT_EQ(frame.frame.mode, 3U);
        EXPECT_EQ(frame.stack.mode, 3U);
        EXPECT_EQ(frame.reserved[0], 0U);
        EXPECT_NE(frame.frame.offset, 0U);
    }
    ++walked;
    if (walked <= readied) {
        return 1;
    }
    if (walked - readied > frames.size()) {
        return 0;
    }
    frame.pc.offset = frames[walked - readied - 1].counted ? walked - readied : 0;
    frame.frame.offset = frames[walked - readied - 1].framed ? 1 : 0;
    return 1;
}

std::uint64_t module_base(void*, std::uint64_t address) {
    return address != 0 && at(address).based ? address : 0;
}

std::uint32_t module_name(void*, HINSTANCE module, unsigned short* buffer, std::uint32_t size) {
    EXPECT_EQ(size, 100U);
    return static_cast<std::uint32_t>(
        os::widen(at(reinterpret_cast<std::uint64_t>(module)).module.c_str(), buffer, size));
}

int symbol(void*, std::uint64_t address, std::uint64_t*, void* record) {
    auto* const r = static_cast<os::SymbolRecord*>(record);
    EXPECT_EQ(r->size_of_struct, 32U);
    EXPECT_EQ(r->max_name_length, 480U);
    std::strcpy(static_cast<char*>(record) + offsetof(os::SymbolRecord, name),
                at(address).symbol.c_str());
    return at(address).symbol.empty() ? 0 : 1;
}

int source_line(void*, std::uint64_t address, std::uint32_t*, void* record) {
    auto* const r = static_cast<os::LineRecord*>(record);
    EXPECT_EQ(r->size_of_struct, 40U);
    separated = at(address).file;
    std::replace(separated.begin(), separated.end(), '/', os::properties().directory_separator);
    r->file_name = separated.data();
    r->line_number = static_cast<std::uint32_t>(10 * address);
    return separated.empty() ? 0 : 1;
}

class CaptureText : public testing::Test {
protected:
    void SetUp() override {
        initialized_ = KXMBasCallStack::s_SymInitialized;
        walk_ = KXMBasCallStack::s_StackWalkFunction;
        base_ = KXMBasCallStack::s_SymGetModuleBase;
        name_ = KXMBasCallStack::s_GetModuleBaseName;
        symbol_ = KXMBasCallStack::s_SymGetSymFromAddr;
        line_ = KXMBasCallStack::s_SymGetLineFromAddr;
        KXMBasCallStack::s_SymInitialized = true; // nothing is bound over ours
        KXMBasCallStack::s_StackWalkFunction = walk;
        KXMBasCallStack::s_SymGetModuleBase = module_base;
        KXMBasCallStack::s_GetModuleBaseName = module_name;
        KXMBasCallStack::s_SymGetSymFromAddr = symbol;
        KXMBasCallStack::s_SymGetLineFromAddr = source_line;
        readied = 2;
    }
    void TearDown() override {
        KXMBasCallStack::s_SymInitialized = initialized_;
        KXMBasCallStack::s_StackWalkFunction = walk_;
        KXMBasCallStack::s_SymGetModuleBase = base_;
        KXMBasCallStack::s_GetModuleBaseName = name_;
        KXMBasCallStack::s_SymGetSymFromAddr = symbol_;
        KXMBasCallStack::s_SymGetLineFromAddr = line_;
    }
    // As an exception filter captures its own thread, which takes the limit as given.
    static Text capture(std::vector<Frame> stack, int limit = 20) {
        frames = std::move(stack);
        walked = 0;
        return taken(KXMBasCallStack::ExceptionCallStack(nullptr, limit));
    }
    static Text construct(std::vector<Frame> stack) {
        frames = std::move(stack);
        walked = 0;
        return taken(KXMBasCallStack(7, nullptr).CStr());
    }

private:
    bool initialized_ = false;
    KXMBasCallStack::StackWalkFunction walk_ = nullptr;
    KXMBasCallStack::ModuleBaseFunction base_ = nullptr;
    KXMBasCallStack::ModuleBaseNameFunction name_ = nullptr;
    KXMBasCallStack::SymFromAddressFunction symbol_ = nullptr;
    KXMBasCallStack::LineFromAddressFunction line_ = nullptr;
};

const Frame main_frame{"main", "/src/main.cpp"};

TEST_F(CaptureText, IsALineAFrameUpToTheStopName) {
    for (const char* const stop : {"main", "endthreadex"}) {
        const std::vector<Frame> stack{
            {"assemble", "/home/kx/src/assemble.cpp", "libsolver.so"},
            {"a_function_with_a_name_of_more_than_forty_characters", "",
             "a_module_of_more_than_26_chars"},
            {"marked", "/src/opt/mesh/bsf/opt/mesh.cpp"}, // the first marker counts
            {"other_mark", "/src/bsf/mesh/mesh.cpp"},
            {stop, "/src/main.cpp"},
            {"", "", "", false}};
        std::string expected = line(1, "libsolver.so", "assemble", "assemble.cpp", 10);
        expected += line(2, "a_module_of_more_than_26_chars",
                         "a_function_with_a_name_of_more_than_forty_characters", "", 0);
        std::string marked = "mesh/bsf/opt/mesh.cpp", other = "mesh/mesh.cpp";
        for (std::string* const name : {&marked, &other}) {
            std::replace(name->begin(), name->end(), '/', os::properties().directory_separator);
        }
        expected += line(3, "solver.exe", "marked", marked, 30);
        expected += line(4, "solver.exe", "other_mark", other, 40);
        EXPECT_EQ(capture(stack), expected);
        EXPECT_EQ(construct(stack), expected);
    }
    EXPECT_EQ(capture({main_frame}), "") << "empty, not absent";
    EXPECT_EQ(capture({{"Main", "/a/m.cpp"}, main_frame}),
              line(1, "solver.exe", "Main", "m.cpp", 10));
}

TEST_F(CaptureText, HidesTheErrorMachineryWithoutUsingUpNumberOrLimit) {
    std::vector<Frame> stack{{"first", "/a/f.cpp"}};
    for (const char* const hidden :
         {"ExceptCallback", "UnhandledExceptionFilter", "KXMDmpErrorHandler1",
          "omi_ExceptionReport", "longjmp", "_C_specific_handler", "RtlInitializeResource",
          "KiUserExceptionDispatcher", "_chkstk", "SignalAction", "seh_filter_exe",
          "KXMBasException::DeveloperReport", "KXMBasException::Throw", "raise"}) {
        stack.push_back({hidden, "/a/hidden.cpp"});
    }
    stack.push_back({"SaveCurrentCallStack", "/a/save.cpp"});
    stack.push_back({"second", "/a/s.cpp"});
    stack.push_back(main_frame);
    const std::string first = line(1, "solver.exe", "first", "f.cpp", 10);
    EXPECT_EQ(construct(stack), first + line(2, "solver.exe", "second", "s.cpp", 170));
    EXPECT_EQ(capture(stack, 2),
              first + line(2, "solver.exe", "SaveCurrentCallStack", "save.cpp", 160))
        << "hidden in a plain capture only";
}

TEST_F(CaptureText, EndsAtTheLimitAndAtAnUnknownSymbol) {
    const std::vector<Frame> stack{{"a", "/a.cpp"}, {"b", "/b.cpp"}, {"c", "/c.cpp"}};
    const std::string a = line(1, "solver.exe", "a", "a.cpp", 10);
    EXPECT_EQ(capture(stack, 1), a);
    EXPECT_EQ(capture(stack, 0), "");
    EXPECT_EQ(capture(stack, -1), "");
    EXPECT_EQ(capture({{"a", "/a.cpp"}, {""}, {"c"}}),
              a + "  2)  " + test::padded("solver.exe", 26) + test::padded("unknown", 40) + "\n")
        << "without the two spaces in between";
    KXMBasCallStack::s_StackWalkFunction = DUMMY_STACKWALK;
    EXPECT_EQ(capture(stack), "") << "a first walk that fails";
}

// What a round that ends the capture appends stays in the wide text.
TEST_F(CaptureText, KeepsWholeLinesWhenTheBufferFills) {
    const std::string file = "/" + std::string(60, 'f') + ".cpp";
    Text text = capture(std::vector<Frame>(60, {"name", file}), 60);
    ASSERT_TRUE(text);
    std::string expected;
    for (int i = 1; expected.size() + 5 + 27 + 2 + 40 + 2 + 64 <= 1990; ++i) {
        expected += line(i, "solver.exe", "name", file.substr(1), 10 * i);
    }
    EXPECT_EQ(*text, expected) << "the line that does not fit is not begun";

    // A name is too long when it exceeds what is left less 562; nothing is, once that is negative.
    const std::string longest(479, 'n');
    text = capture(std::vector<Frame>(9, {longest, ""}));
    expected = line(1, "solver.exe", longest, "", 0);
    expected += line(2, "solver.exe", longest, "", 0);
    EXPECT_EQ(*text, expected);
    // The last name that fits, and behind it the last file name.
    for (const auto& [letters, path] :
         {std::pair(376, 550), std::pair(377, 0), std::pair(376, 551)}) {
        const Frame third{std::string(static_cast<std::size_t>(letters), 'n'),
                          path != 0 ? "/" + std::string(static_cast<std::size_t>(path), 'f') : ""};
        text = capture({{longest}, {longest}, third, main_frame});
        EXPECT_EQ(*text, path != 550 ? expected
                                     : expected + line(3, "solver.exe", third.symbol,
                                                       third.file.substr(1), 30));
    }
    std::vector<Frame> past(19, {"name", ""});
    past.push_back({longest, ""});
    past.push_back(main_frame);
    EXPECT_NE(capture(past)->find(longest), std::string::npos);

    // Lines without files meet no check at all: what outgrows the text is left out.
    text = capture(std::vector<Frame>(5000, {"name", ""}), 5000);
    expected.clear();
    for (int i = 1; expected.size() + 75 < 2000; ++i) {
        expected += line(i, "solver.exe", "name", "", 0);
    }
    EXPECT_EQ(*text, expected);
}

TEST_F(CaptureText, ReportsAStackThatEndsEarlyAndGivesNoText) {
    const LeaksByDesign leaks;
    testing::internal::CaptureStdout();
    EXPECT_EQ(capture({{"a", "/a.cpp"}}), std::nullopt);
    const std::string told = testing::internal::GetCapturedStdout();
    EXPECT_EQ(told.find("*** Error: Could not walk the thread\n"
                        "*** StackWalk64() failed with error "),
              0U);
    const std::string stack = "\nCURRENT STACK:\n" + line(1, "solver.exe", "a", "a.cpp", 10) + "\n";
    ASSERT_GT(told.size(), stack.size());
    EXPECT_EQ(told.substr(told.size() - stack.size()), stack);

    // The wide text is never cleared: a skipped frame's beginning is still there.
    testing::internal::CaptureStdout();
    EXPECT_EQ(capture({{"raise", "/a.cpp"}}), std::nullopt);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("CURRENT STACK:\n  1)  solver.exe"),
              std::string::npos);

    testing::internal::CaptureStdout();
    EXPECT_EQ(capture({{"a", "/a.cpp"}, {"b", "", "", false}, {"c"}}), std::nullopt);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "*** Could not get the module base address\n");

    testing::internal::CaptureStdout();
    EXPECT_EQ(capture({{"a", "/a.cpp", "solver.exe", true, false}, main_frame}),
              line(1, "solver.exe", "a", "a.cpp", 10))
        << "goes on";
    const std::string lost = testing::internal::GetCapturedStdout();
    EXPECT_EQ(lost.find("*** Error: Could not obtain StackFrame\n*** StackWalk64() failed"), 0U);
    EXPECT_EQ(std::count(lost.begin(), lost.end(), '\n'), 2) << lost;

    testing::internal::CaptureStdout();
    EXPECT_EQ(capture({{"a", "/a.cpp", "solver.exe", true, true, false}}), std::nullopt);
    const std::string nowhere = testing::internal::GetCapturedStdout();
    EXPECT_EQ(
        nowhere.find("*** Error: Could not obtain ProgramCounter\n*** StackWalk64() failed with"),
        0U);
    EXPECT_TRUE(nowhere.ends_with("*** Could not get the module base address\n")) << nowhere;
}

TEST_F(CaptureText, IsAbsentAfterAFaultOfTheDebugHelp) {
    const std::vector<Frame> stack{{"a", "/a.cpp"}, main_frame};
    EXPECT_EQ(capture({{"a", "no_separator.cpp"}, main_frame}), std::nullopt);
    KXMBasCallStack::s_SymGetModuleBase = nullptr;
    EXPECT_EQ(construct(stack), std::nullopt);
    KXMBasCallStack::s_SymGetModuleBase = module_base;
    for (int i = 0; i < 3; ++i) {
        KXMBasCallStack::s_SymGetLineFromAddr = nullptr;
        EXPECT_EQ(capture(stack), std::nullopt);
        KXMBasCallStack::s_SymGetLineFromAddr = source_line;
        EXPECT_TRUE(capture(stack)) << "the next capture is sound";
    }
}

// A capture that comes upon another one, as from a handler, must neither wait for it nor spoil it.
Text inner;

int nesting_line(void* process, std::uint64_t address, std::uint32_t* displacement, void* record) {
    if (!inner) {
        inner = "";
        const std::size_t here = walked;
        walked = 0;
        inner = taken(KXMBasCallStack::ExceptionCallStack(nullptr, 20));
        walked = here;
    }
    return source_line(process, address, displacement, record);
}

TEST_F(CaptureText, OfACaptureInsideAnotherLeavesThatWhole) {
    KXMBasCallStack::s_SymGetLineFromAddr = nesting_line;
    const Text outer = capture({{"a", "/a.cpp"}, {"b", "/b.cpp"}, main_frame});
    EXPECT_EQ(outer,
              line(1, "solver.exe", "a", "a.cpp", 10) + line(2, "solver.exe", "b", "b.cpp", 20));
    EXPECT_EQ(inner, outer);
}

TEST(CallStackObject, WrapsATextAndAnswersForIt) {
    char own[] = "own text";
    const KXMBasCallStack wrapped(own, 0), empty(static_cast<char*>(nullptr), 0);
    EXPECT_TRUE(wrapped.Available());
    EXPECT_EQ(wrapped.CStr(), own);
    EXPECT_EQ(wrapped.GetEntry(29), wrapped.GetEntry(0));
    EXPECT_FALSE(empty.Available());

    const KXMBasCallStack::Entry entry("ignored");
    EXPECT_FALSE(entry.SymNamePresent() || entry.SymHostPresent());
    EXPECT_EQ(entry.SymAddr(), 0U);
    testing::internal::CaptureStdout();
    entry.Print();
    // A host without a symbol, as a client would fill it in: the fields are at known places.
    auto filled = entry;
    std::strcpy(const_cast<char*>(filled.SymHost()), "solver.exe");
    filled.Print();
    std::strcpy(const_cast<char*>(filled.SymName()), "f");
    filled.Print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "solver.exe                 ! inline @ 0x000000000000\n"
              "solver.exe                 ! f         \n");
}

} // namespace
