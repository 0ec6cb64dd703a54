// Allocator objects, the record of memory figures, and the error stack that failures are noted on.
#include "refusing_back_end.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <string>
#include <thread>
#include <type_traits>

namespace {

using test::Refusing_back_end;

static_assert(sizeof(mem_Allocator) == sizeof(void*) && sizeof(mem_DLAllocator) == sizeof(void*));
static_assert(std::is_base_of_v<mem_AllocationOperatorsTiny, mem_Allocator>);

constexpr const char* tag = "tests";
volatile std::size_t too_much = SIZE_MAX / 2;

class Board : public testing::Test {
protected:
    void SetUp() override { KXMBasErrorStackReactivate(); }
    void TearDown() override { KXMBasErrorStackDeactivate(); }
};

TEST_F(Board, GetsWhatAnAllocatorObjectWasRefusedTwice) {
    mem_Allocator allocator;
    void* const block = allocator.Malloc(tag, 10);
    Refusing_back_end back_end;
    const auto refused = [&](auto request) {
        KXMBasErrorStack::PushMessage("");
        back_end.refuse(2);
        EXPECT_THROW(request(), std::bad_alloc);
        return std::string(KXMBasErrorStack::ErrorMessages());
    };
    EXPECT_EQ(refused([&] { allocator.Malloc(tag, 4000); }), "Requested Allocation: 4000 bytes");
    EXPECT_EQ(back_end.requests(), 2);
    EXPECT_EQ(refused([&] { allocator.Calloc(tag, 1000, 8); }), "Requested Allocation: 8 bytes");
    EXPECT_EQ(refused([&] { allocator.Realloc(tag, block, 5000); }),
              "Requested Reallocation: 5000 bytes");
    EXPECT_EQ(refused([&] { allocator.Malign(tag, too_much, 64); }),
              "Requested Allocation: 9223372036854775807 bytes");
    EXPECT_EQ(std::string(KXMBasErrorStack::CStr()).rfind("  1) ", 0), 0U);

    KXMBasErrorStackDeactivate();
    EXPECT_EQ(refused([&] { allocator.Malloc(tag, 4000); }), "") << "not active";

    // The second attempt may succeed.
    back_end.refuse(1);
    void* const zeros = allocator.Calloc(tag, 10, 10);
    EXPECT_EQ(std::memcmp(zeros, std::string(100, '\0').data(), 100), 0);
    EXPECT_EQ(back_end.requests(), 2);
    EXPECT_EQ(back_end.last_size(), 10U);
    back_end.refuse(1);
    allocator.Free(tag, allocator.Realloc(tag, zeros, 200));
    allocator.Free(tag, block);
    // To nothing: released once, and null is no answer.
    void* const empty = allocator.Realloc(tag, allocator.Malloc(tag, 50), 0);
    EXPECT_NE(empty, nullptr);
    allocator.Free(tag, empty);
    allocator.Free(tag, nullptr);
    mem_MalignFree(allocator.Malign(tag, 100, 4096));
    EXPECT_EQ(allocator.Purge(1000), 0U);
}

#if !defined(KXM_NO_RUNTIME_HEAP)
// A program that goes on after refusals does not lose memory by the notes of them.
TEST_F(Board, KeepsNoCallStackOfARefusal) {
    const auto refuse = [](int times) {
        for (mem_Allocator allocator; times > 0; --times) {
            EXPECT_THROW(allocator.Malloc(tag, too_much), std::bad_alloc);
            testing::internal::CaptureStdout();
            testing::internal::CaptureStderr();
            EXPECT_THROW(mem_OperatorNewThrow(too_much), std::bad_alloc);
            testing::internal::GetCapturedStdout();
            testing::internal::GetCapturedStderr();
        }
    };
    refuse(5); // what is read once for all stacks
    const std::uint64_t used = mem_Mallinfo().usedBytes;
    refuse(40);
    EXPECT_LT(mem_Mallinfo().usedBytes, used + 4000);
}
#endif

TEST_F(Board, IsNoObstacleWhenThreadsFailAtOnce) {
    const auto fail = [] {
        mem_Allocator allocator;
        for (int i = 0; i < 20; ++i) {
            EXPECT_THROW(allocator.Malloc(tag, too_much), std::bad_alloc);
        }
    };
    std::thread other(fail);
    fail();
    other.join();
    EXPECT_EQ(std::string(KXMBasErrorStack::ErrorMessages()).rfind("Requested Allocation: ", 0),
              0U);
}

TEST(AllocatorObjects, CopyTheirType) {
    Refusing_back_end back_end;
    const mem_Allocator general;
    const mem_DLAllocator heap;
    for (const mem_Allocator* const original :
         {&general, static_cast<const mem_Allocator*>(&heap)}) {
        mem_Allocator* const copy = original->Copy();
        EXPECT_EQ(typeid(*copy), typeid(*original));
        EXPECT_EQ(back_end.last_size(), sizeof(void*));
        delete copy;
    }
    EXPECT_EQ(back_end.live(), 0);
}

TEST(AllocatorObjects, OfTheHeapPassTheTableBy) {
    mem_DLAllocator heap;
    Refusing_back_end back_end;
    mem_Allocator& object = heap; // through its table
    void* block = object.Malloc(tag, 100);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 64, 0U);
    block = object.Realloc(tag, block, 5000);
    ASSERT_NE(block, nullptr);
    object.Free(tag, block);
    block = object.Realloc(tag, nullptr, 0);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(object.Realloc(tag, block, 0), nullptr) << "released once";
    void* const page = heap.Memalign(tag, 4096, 4096);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(page) % 4096, 0U);
    EXPECT_EQ(object.Malloc(tag, too_much), nullptr);
    EXPECT_EQ(object.Realloc(tag, page, too_much), nullptr);
    EXPECT_EQ(heap.Memalign(tag, 64, too_much), nullptr);
    object.Free(tag, page);
    EXPECT_EQ(back_end.requests(), 0);

    mem_Free(object.Calloc(tag, 10, 10)); // these two are the general ones
    EXPECT_EQ(back_end.requests(), 1);
    EXPECT_THROW(object.Malign(tag, too_much, 64), std::bad_alloc);
}

TEST(Figures, ComeFromTheHeapOrTheRuntime) {
    void* const block = mem_Malloc(50000);
    const mem_Mallinfo runtime;
#if !defined(KXM_NO_RUNTIME_HEAP)
    EXPECT_GT(runtime.usedBytes, 50000U);
#endif
    EXPECT_GE(runtime.committedBytes, runtime.usedBytes);
    mem_Free(block);

    mem_DLAllocator heap;
    void* const held = heap.Malloc(tag, 1000000);
    const bool used = std::exchange(mem_Mallinfo::useDL, true);
    const mem_Mallinfo of_heap;
    mem_Mallinfo::useDL = used;
    heap.Free(tag, held);
    EXPECT_GE(of_heap.committedBytes, 1000000U);
    EXPECT_EQ(of_heap.committedBytes % 4096, 0U);
    EXPECT_EQ(of_heap.usedBytes + of_heap.freeBytes + of_heap.reservedBytes, 0U);
}

std::string text(char letter, std::size_t length) {
    return std::string(length, letter);
}

const bool empty_at_start = KXMBasErrorStack::CStr()[0] == '\0' &&
                            KXMBasErrorStack::ErrorMessages()[0] == '\0' &&
                            KXMBasErrorStack::Length() == 0 && KXMBasErrorStack::GetMem() == 0 &&
                            !KXMBasErrorStack::Active();

TEST(ErrorStack, KeepsOneTextWithTheRoomThatTheLastOneLeft) {
    EXPECT_TRUE(empty_at_start);
    KXMBasErrorStack::Push("");
    const auto push = [](const std::string& what) {
        KXMBasErrorStack::Push(what.c_str());
        return std::string(KXMBasErrorStack::CStr());
    };
    EXPECT_EQ(push(text('a', 10)), text('a', 10));
    EXPECT_EQ(push("bbbbb"), "bbbbb");
    EXPECT_EQ(KXMBasErrorStack::Length(), 5);
    EXPECT_EQ(push(text('c', 3000)), text('c', 3000));
    EXPECT_EQ(push(text('d', 1500)), text('d', 1000) + text('c', 2000)) << "the older one's tail";
    EXPECT_EQ(KXMBasErrorStack::Length(), -1);
    EXPECT_EQ(push(text('e', 5000)), text('e', 3999)) << "one place too many to write to";
    EXPECT_EQ(KXMBasErrorStack::Length(), -1);
    EXPECT_EQ(push(text('f', 4000)), text('f', 3999));
    EXPECT_EQ(KXMBasErrorStack::Length(), 4000);
    EXPECT_EQ(push("g"), text('f', 3999)) << "no room at all";
    EXPECT_EQ(push(text('h', 4001)), text('h', 3999)) << "exactly the room there is";
    EXPECT_EQ(KXMBasErrorStack::Length(), 4001);
    EXPECT_EQ(push(text('i', 9000)), text('i', 3999)) << "room without end";
    EXPECT_EQ(KXMBasErrorStack::Length(), 9000);
    EXPECT_EQ(push("j"), "j");

    KXMBasErrorStack::PushMessage("");
    KXMBasErrorStack::PushMessage(nullptr);
    EXPECT_STREQ(KXMBasErrorStack::ErrorMessages(), "(null)");
    KXMBasErrorStack::PushMessage("");
    KXMBasErrorStack::PushMessage(text('m', 5000).c_str());
    EXPECT_EQ(KXMBasErrorStack::ErrorMessages(), text('m', 3999));
    EXPECT_STREQ(KXMBasErrorStack::CStr(), "j");
}

TEST(ErrorStack, KeepsAHistoryOfTheFootprint) {
    KXMBasErrorStack::Push("x");
    EXPECT_EQ(KXMBasErrorStack::GetMem(), mem_FootprintFromResources() / 1024);
    KXMBasErrorStack::PushMem(7);
    KXMBasErrorStack::PushMessage("not in the history");
    EXPECT_EQ(KXMBasErrorStack::GetMem(), 7U);
    for (std::uint64_t i = 0; i < 5000; ++i) {
        KXMBasErrorStack::PushMem(i);
    }
    const std::uint64_t last_told = KXMBasErrorStack::GetMem();
    EXPECT_LT(last_told, 3999U) << "told: the 3999th of all";
    KXMBasErrorStack::PushMem(99999);
    EXPECT_EQ(KXMBasErrorStack::GetMem(), last_told);
}

TEST(ErrorStack, KeepsWhatTheClientGivesIt) {
    const std::string cut = text('n', 199);
    KXMBasErrorStack::SetJobname(text('n', 250).c_str());
    EXPECT_EQ(KXMBasErrorStack::Jobname(), cut);
    KXMBasErrorStack::SetIndir("in");
    KXMBasErrorStack::SetOutdir("out");
    KXMBasErrorStack::SetTmpdir("tmp");
    KXMBasErrorStack::SetExePath("exe");
    EXPECT_EQ(KXMBasErrorStack::Jobname(), cut) << "a neighbour took its place";
    EXPECT_STREQ(KXMBasErrorStack::Indir(), "in");
    EXPECT_STREQ(KXMBasErrorStack::Outdir(), "out");
    EXPECT_STREQ(KXMBasErrorStack::Tmpdir(), "tmp");
    EXPECT_STREQ(KXMBasErrorStack::ExePath(), "exe");
    KXMBasErrorStack::SetMemoryLimit(std::uint64_t{1} << 40);
    EXPECT_EQ(KXMBasErrorStack::GetMemoryLimit(), std::uint64_t{1} << 40);
    KXMBasErrorStack::SetFatalException(true);
    EXPECT_TRUE(KXMBasErrorStack::FatalException());
    EXPECT_NE(std::strlen(KXMBasErrorStack::Cwd()), 0U);

    testing::internal::CaptureStdout();
    KXMBasErrorStack::SaveMarker("x");
    std::fflush(stdout);
    std::string marker = testing::internal::GetCapturedStdout();
    std::erase(marker, '\r');
    EXPECT_EQ(marker, "## x\n");
}

} // namespace
