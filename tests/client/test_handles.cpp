// Allocator handles, the operators over the process-wide pool, and the checked allocators with the
// detector off.
#include "recording_KX0CORE.h"
#include "sized_back_end.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <string>

namespace {

using kxm::AllocatorAccess;
using test::Sized_back_end;

// Tells what it is asked for, and when it goes.
class Witness : public KXMBasAllocatorBase {
public:
    explicit Witness(std::string& told) : told_(told) {}
    ~Witness() override { told_ += "gone "; }
    void* Alloc(std::size_t size, std::size_t& actualSize) override {
        actualSize = size + 1;
        return tell("actual ");
    }
    void* Alloc(std::size_t size) override { return tell("alloc" + std::to_string(size) + ' '); }
    void Free(void* ptr) override { tell(ptr == &told_ ? "free " : "wrong "); }
    const KXMBasAllocator& LargeBlockAllocator(const KXMBasAllocator& self) const override {
        return self;
    }
    void* allocate(std::size_t, const void*) override { return tell("slot5 "); }
    void deallocate(void*, std::size_t) override { tell("slot6 "); }

private:
    void* tell(const std::string& what) {
        told_ += what;
        return &told_;
    }
    std::string& told_;
};

TEST(Handle, CountsItsCopiesAndGoesWithTheLast) {
    std::string one_told, two_told;
    auto* const one = new Witness(one_told);
    auto* const two = new Witness(two_told);
    EXPECT_EQ(AllocatorAccess::count(*one), 0);
    {
        KXMBasAllocator first(one), second(two);
        KXMBasAllocator& itself = first;
        first = itself; // alone, and must survive it
        EXPECT_EQ(AllocatorAccess::count(*one), 1);
        {
            const KXMBasAllocator copy(first);
            first = itself;
            EXPECT_EQ(AllocatorAccess::count(*one), 2);
        }
        EXPECT_EQ(AllocatorAccess::count(*one), 1);
        const Witness twin(*one); // of the allocator, which has no handles yet
        EXPECT_EQ(AllocatorAccess::count(twin), 0);
        second = first;
        EXPECT_EQ(two_told, "gone ");
        EXPECT_EQ(AllocatorAccess::count(*one), 2);
        EXPECT_EQ(one_told, "");
    }
    EXPECT_EQ(one_told, "gone gone "); // the twin, and once itself
}

TEST(Handle, SetsTheCountWhenABaseIsWrappedAgain) {
    std::string told;
    auto* const base = new Witness(told);
    // Two that are never destroyed: their allocator goes from under them.
    alignas(KXMBasAllocator) unsigned char storage[2][sizeof(KXMBasAllocator)];
    const auto* const first = new (storage[0]) KXMBasAllocator(base);
    new (storage[1]) KXMBasAllocator(*first);
    EXPECT_EQ(AllocatorAccess::count(*base), 2);
    {
        const KXMBasAllocator again(base);
        EXPECT_EQ(AllocatorAccess::count(*base), 1);
    }
    EXPECT_EQ(told, "gone ");
}

TEST(Handle, IsNullWhereItWasOnceItIsGone) {
    std::string told;
    alignas(KXMBasAllocator) unsigned char storage[sizeof(KXMBasAllocator)];
    auto* volatile handle = new (storage) KXMBasAllocator(new Witness(told));
    handle->~KXMBasAllocator();
    const volatile unsigned char* const bytes = storage;
    unsigned char any = 0;
    for (std::size_t i = 0; i < sizeof storage; ++i) {
        any = static_cast<unsigned char>(any | bytes[i]);
    }
    EXPECT_EQ(any, 0);
}

TEST(Handle, GoesToAllocAndFreeWhateverTheNameCalled) {
    std::string told;
    KXMBasAllocator handle(new Witness(told));
    std::size_t actual = 0;
    void* const block = handle.Alloc(10);
    handle.Alloc(20, actual);
    EXPECT_EQ(actual, 21U);
    handle.allocate(30, &told);
    handle.deallocate(block, 99);
    handle.Free(block);
    EXPECT_EQ(told, "alloc10 actual alloc30 free free ");
    EXPECT_EQ(&handle.LargeBlockAllocator(), &handle);
}

TEST(Handle, OfNothingIsAFatalErrorToUseAndNothingElse) {
    KXMBasAllocator null(nullptr);
    KXMBasAllocator copy(null);
    copy = null;
    std::string told;
    KXMBasAllocator once(new Witness(told));
    once = null;
    EXPECT_EQ(told, "gone ");

    const int before = recorded_fatal_errors();
    std::size_t actual = 7;
    EXPECT_EQ(copy.Alloc(1), nullptr);
    EXPECT_EQ(copy.Alloc(1, actual), nullptr);
    EXPECT_EQ(actual, 7U);
    EXPECT_EQ(copy.allocate(1, nullptr), nullptr);
    copy.Free(&told);
    copy.deallocate(&told, 1);
    EXPECT_EQ(&copy.LargeBlockAllocator(), &copy);
    EXPECT_EQ(recorded_fatal_errors(), before + 6);
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:0 != mBase");
    EXPECT_STREQ(recorded_fatal_source(), "KXMBasAllocator");
}

int handler_calls = 0;

TEST(TrackingNew, DrawsOnThePoolAndFollowsTheNewHandler) {
    Sized_back_end back_end;
    const std::size_t before = operatorNewPool.MemoryCurrent();
    void* const block = mem_trackingNew(100, nullptr);
    void* const too = mem_trackingNewNoThrow(100, "name");
    EXPECT_EQ(operatorNewPool.MemoryCurrent(), before + 2 * Sized_back_end::chunk(100));
    mem_trackingDelete(block, nullptr);
    mem_trackingDelete(too, "name");
    mem_trackingDelete(nullptr, nullptr);
    EXPECT_EQ(operatorNewPool.MemoryCurrent(), before);

    back_end.refuse(1);
    EXPECT_THROW(mem_trackingNew(100, "name"), std::bad_alloc);
    EXPECT_EQ(back_end.requests(), 1);
    back_end.refuse(5); // without a handler it goes on for as long as it takes
    mem_trackingDelete(mem_trackingNewNoThrow(100, nullptr), nullptr);
    EXPECT_EQ(back_end.requests(), 6);

    std::set_new_handler([] { ++handler_calls; });
    back_end.refuse(3);
    mem_trackingDelete(mem_trackingNew(100, nullptr), nullptr);
    EXPECT_EQ(handler_calls, 3);
    back_end.refuse(2);
    mem_trackingDelete(mem_trackingNewNoThrow(100, nullptr), nullptr);
    EXPECT_EQ(handler_calls, 5);
    std::set_new_handler([] { throw 17; });
    back_end.refuse(1);
    EXPECT_THROW(mem_trackingNew(100, nullptr), int);
    EXPECT_NE(std::set_new_handler(nullptr), nullptr) << "the handler is gone";
    EXPECT_EQ(operatorNewPool.MemoryCurrent(), before);
}

bool holds(const void* block, std::size_t size, unsigned char value) {
    const std::string wanted(size, static_cast<char>(value));
    return std::memcmp(block, wanted.data(), size) == 0;
}

TEST(CheckedAllocators, ClearWhatTheyAllocateOrLeaveItAsItComes) {
    Sized_back_end back_end;
    KXMBasMemAllocator clears;
    KXMBasMemAllocatorNoInit leaves;
    for (KXMBasMemAllocator* const allocator :
         {&clears, static_cast<KXMBasMemAllocator*>(&leaves)}) {
        const unsigned char contents = allocator == &clears ? 0 : 0xA5;
        std::size_t actual = 0;
        const std::pair<void*, std::size_t> blocks[] = {
            {allocator->Alloc(100), 100},
            {allocator->Alloc(200, actual), 200},
            {allocator->AllocDouble(5), 40},
            {allocator->AllocInt(5), 20},
        };
        EXPECT_EQ(actual, 200U);
        EXPECT_EQ(back_end.last_size(), 20U);
        for (const auto& [block, size] : blocks) {
            EXPECT_TRUE(holds(block, size, contents)) << size;
            allocator->Free(block);
        }
        void* const block = allocator->allocate(60, &actual);
        EXPECT_TRUE(holds(block, 60, 0xA5)) << "the detector is off";
        allocator->deallocate(block, 1);
        allocator->deallocate(nullptr, 1);
        allocator->Free(nullptr);
        const KXMBasAllocator handle(nullptr);
        EXPECT_EQ(&allocator->LargeBlockAllocator(handle), &handle);
    }
    EXPECT_EQ(back_end.live(), 0U);
    struct Empty final : KXMBasMemAllocator { // a client's own, which answers null
        using KXMBasMemAllocator::Alloc;
        void* Alloc(std::size_t) override { return nullptr; }
    } empty;
    std::size_t actual = 7;
    EXPECT_THROW(empty.Alloc(100, actual), std::bad_alloc);
    EXPECT_EQ(actual, 7U);
}

TEST(CheckedAllocators, ThrowAndTellTheErrorStackWhenItListens) {
    Sized_back_end back_end;
    KXMBasMemAllocator clears;
    KXMBasMemAllocatorNoInit leaves;
    back_end.refuse(1);
    EXPECT_THROW(clears.Alloc(4000), std::bad_alloc);
    EXPECT_STREQ(KXMBasErrorStack::ErrorMessages(), "");

    KXMBasErrorStack::Activate();
    for (KXMBasMemAllocator* const allocator :
         {&clears, static_cast<KXMBasMemAllocator*>(&leaves)}) {
        const auto refused = [&](const char* text, auto request) {
            back_end.refuse(1);
            EXPECT_THROW(request(), std::bad_alloc);
            EXPECT_EQ(back_end.requests(), 1);
            EXPECT_STREQ(KXMBasErrorStack::ErrorMessages(), text);
            EXPECT_EQ(std::strncmp(KXMBasErrorStack::CStr(), "  1) ", 5), 0);
            KXMBasErrorStack::Push("");
        };
        std::size_t actual = 7;
        refused("Requested Allocation: 18446744073709551615 bytes",
                [&] { allocator->Alloc(static_cast<std::size_t>(-1)); });
        refused("Requested Allocation: 4001 bytes", [&] { allocator->Alloc(4001, actual); });
        EXPECT_EQ(actual, 7U);
        refused("Requested Allocation: 4002 bytes", [&] { allocator->allocate(4002, nullptr); });
        refused("Requested Allocation: -1 doubles", [&] { allocator->AllocDouble(-1); });
        EXPECT_EQ(back_end.last_size(), std::size_t{0} - 8);
        refused("Requested Allocation: -3 ints", [&] { allocator->AllocInt(-3); });
        EXPECT_EQ(back_end.last_size(), std::size_t{0} - 12);
    }
    KXMBasErrorStack::Deactivate();
}

} // namespace
