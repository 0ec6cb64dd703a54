// The loop behind operator new: refusals, reports, new-handlers. The back end is one that refuses as
// often as a test wants.
#include "refusing_back_end.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <string>

namespace {

using test::Refusing_back_end;

// What the standard streams got meanwhile.
class Streams {
public:
    Streams() {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
    }
    void read() {
        std::fflush(stdout);
        std::fflush(stderr);
        out = text(testing::internal::GetCapturedStdout());
        err = text(testing::internal::GetCapturedStderr());
    }

    std::string out, err;

private:
    static std::string text(std::string read) {
        std::erase(read, '\r');
        return read;
    }
};

int count(const std::string& text, const std::string& what) {
    int found = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++found;
    }
    return found;
}

const std::string failed = "\n*** Error: memory allocation request failed ***\n";

int handler_calls = 0;

class OperatorNew : public testing::Test {
protected:
    void SetUp() override { handler_calls = 0; }
    void TearDown() override { std::set_new_handler(nullptr); }
    Refusing_back_end back_end_;
};

struct Entry {
    const char* name;
    void* (*call)(std::size_t);
    bool throws;
    bool builtin;
};
constexpr Entry entries[] = {
    {"mem_OperatorNewThrow", mem_OperatorNewThrow, true, false},
    {"mem_OperatorNewNoThrow",
     [](std::size_t size) { return mem_OperatorNewNoThrow(size, std::nothrow); }, false, false},
    {"mem_OperatorNewTinyThrow", mem_OperatorNewTinyThrow, true, false},
    {"mem_OperatorNewTinyNoThrow",
     [](std::size_t size) { return mem_OperatorNewTinyNoThrow(size, std::nothrow); }, false, false},
    {"mem_OperatorNewThrowBuiltin", mem_OperatorNewThrowBuiltin, true, true},
    {"mem_OperatorNewNoThrowBuiltin", mem_OperatorNewNoThrowBuiltin, false, true},
};

TEST_F(OperatorNew, AsksForTheSizeGivenOrForOneByte) {
    for (const Entry& entry : entries) {
        for (const std::size_t size : {std::size_t{0}, std::size_t{50}, std::size_t{5000}}) {
            mem_Free(entry.call(size));
            EXPECT_EQ(back_end_.last_size(), size != 0 || !entry.builtin ? size : 1) << entry.name;
        }
    }
}

double megabytes_held() {
    return static_cast<double>(mem_FootprintFromResources() / 1024);
}

TEST_F(OperatorNew, ReportsOnBothStreamsAndThrowsWithoutAHandler) {
    for (const Entry& entry : entries) {
        if (!entry.throws) {
            continue;
        }
        back_end_.refuse(1);
        // A size of 0 is told as it was given, though a builtin entry asks for 1.
        const std::size_t size = entry.builtin ? 0 : 4000;
        const double before = megabytes_held();
        Streams streams;
        EXPECT_THROW(entry.call(size), std::bad_alloc) << entry.name;
        streams.read();
        EXPECT_EQ(back_end_.requests(), 1);
        const std::string front =
            failed + "Allocation request: " + std::to_string(size) + " bytes\nCurrent footprint:  ";
        EXPECT_EQ(streams.err.rfind(front, 0), 0U) << streams.err;
        EXPECT_EQ(streams.err.substr(streams.err.find_first_not_of("0123456789", front.size())),
                  " MB\n");
        const double told = std::strtod(streams.err.c_str() + front.size(), nullptr);
        EXPECT_GE(told, before - 2);
        EXPECT_LE(told, megabytes_held() + 2) << "the capture takes some behind it";
        // The capture itself may have written something before that.
        EXPECT_EQ(count(streams.out, "Current callstack:\n  1) "), 1) << streams.out;
        EXPECT_GE(count(streams.out, entry.name), 1) << streams.out;
    }
}

TEST_F(OperatorNew, TriesAgainAsLongAsThereIsAHandler) {
    std::set_new_handler([] { ++handler_calls; });
    for (const Entry& entry : entries) {
        for (const int refusals : {1, 2}) {
            handler_calls = 0;
            back_end_.refuse(refusals);
            Streams streams;
            void* const block = entry.call(4000);
            streams.read();
            EXPECT_NE(block, nullptr) << entry.name;
            EXPECT_EQ(handler_calls, refusals);
            EXPECT_EQ(count(streams.err, failed), refusals);
            EXPECT_EQ(count(streams.out, "Current callstack:\n"), refusals);
            mem_Free(block);
        }
    }
    EXPECT_NE(std::get_new_handler(), nullptr) << "the handler is gone";
}

TEST_F(OperatorNew, AHandlerMayFreeGiveUpOrThrow) {
    static void* reserve = nullptr;
    reserve = mem_Malloc(100);
    back_end_.refuse_until_released();
    std::set_new_handler([] { mem_Free(std::exchange(reserve, nullptr)); });
    Streams streams;
    void* const block = mem_OperatorNewThrow(4000);
    mem_Free(block);
    EXPECT_NE(block, nullptr);

    std::set_new_handler([] { throw 17; });
    for (const Entry& entry : entries) {
        back_end_.refuse(1);
        EXPECT_THROW(entry.call(4000), int) << entry.name;
    }
    std::set_new_handler([] { // the next time there is none
        ++handler_calls;
        std::set_new_handler(nullptr);
    });
    back_end_.refuse(2);
    EXPECT_THROW(mem_OperatorNewThrow(4000), std::bad_alloc);
    EXPECT_EQ(handler_calls, 1);
    streams.read();
    EXPECT_EQ(count(streams.err, failed), 1 + 6 + 2);
}

TEST_F(OperatorNew, NoThrowEntriesGoOnWithoutAHandler) {
    for (const Entry& entry : entries) {
        if (!entry.throws) {
            back_end_.refuse(5);
            Streams streams;
            void* const block = entry.call(4000);
            streams.read();
            EXPECT_NE(block, nullptr);
            EXPECT_EQ(count(streams.err, failed), 5) << entry.name;
            mem_Free(block);
        }
    }
}

struct Large : mem_AllocationOperators {
    char bytes[1000];
};
struct Tiny : mem_AllocationOperatorsTiny {
    explicit Tiny(bool fails) {
        if (fails) {
            throw 1;
        }
    }
    char bytes[100] = {};
};
struct Unbuildable {
    Unbuildable() { throw 1; }
};

TEST_F(OperatorNew, ServesClassesAndBuiltInArrays) {
    delete new Large;
    EXPECT_EQ(back_end_.last_size(), sizeof(Large));
    delete new Tiny(false);
    EXPECT_EQ(back_end_.last_size(), sizeof(Tiny));
    auto* const text = new (mem_BUILTIN) char[300];
    EXPECT_EQ(back_end_.last_size(), 300U);
    mem_deleteBuiltIn(text);
    mem_deleteBuiltIn(nullptr);
    // What cannot be built leaves nothing behind.
    EXPECT_THROW(new Tiny(true), int);
    EXPECT_THROW(new (mem_BUILTIN) Unbuildable[10], int);
    EXPECT_EQ(back_end_.live(), 0);
}

} // namespace
