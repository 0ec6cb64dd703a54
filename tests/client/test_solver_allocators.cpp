// The allocators that clients name directly: numeric arrays, tiny blocks, named pools.
#include "KXMBasMem.h"
#include "component.h"
#include "recording_KX0CORE.h"
#include "sized_back_end.h"

#include <gtest/gtest.h>
#include <string>
#include <type_traits>
#include <vector>

namespace {

struct Call {
    std::size_t bytes = 0;
    int line = 0;
    std::string function, file, component;
    void* block = nullptr;
};

Call taken, given;
int answer = 0;

int take(std::size_t bytes, int line, const char* const function, const char* const file,
         const char* const component, void** result) {
    taken = {bytes, line, function, file, component, nullptr};
    if (answer == 0) {
        *result = taken.block = mem_Malloc(bytes);
    }
    return answer;
}

int give(void* p, int line, const char* const function, const char* const file,
         const char* const component) {
    given = {0, line, function, file, component, p};
    mem_Free(p);
    return -1; // looked at by nobody
}

template <class T> void expect_callbacks(const std::string& element) {
    SCOPED_TRACE(element);
    KXMBasCFDAllocator<T> allocator;
    taken = given = {};
    allocator.deallocate(allocator.allocate(3), 3);
    EXPECT_EQ(taken.bytes + given.bytes, 0U) << "another instance's callbacks were used";

    KXMBasCFDAllocator<T>::SetAllocFunc(take);
    KXMBasCFDAllocator<T>::SetFreeFunc(give);
    T* const block = allocator.allocate(3, &allocator);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(taken.bytes, 3 * sizeof(T));
    EXPECT_EQ(taken.line, 77);
    EXPECT_EQ(taken.function, "KXMBasCFDAllocator<" + element + ">::allocate");
    EXPECT_EQ(taken.file, "KXMBasCFDAllocator");
    EXPECT_EQ(taken.component, "KXMBasAlloc");
    allocator.construct(block, T{7});
    EXPECT_EQ(*block, T{7});
    allocator.construct(nullptr, T{7});
    allocator.destroy(block);
    allocator.deallocate(block, 0);
    EXPECT_EQ(given.block, block);
    EXPECT_EQ(given.line, 83);
    EXPECT_EQ(given.function, "KXMBasCFDAllocator<" + element + ">::deallocate");
    EXPECT_EQ(given.file + given.component, "KXMBasCFDAllocatorKXMBasAlloc");

    answer = 1; // and leaves the result alone
    EXPECT_EQ(allocator.allocate(3), nullptr);
    answer = 0;
    // The product wraps and is not tested.
    allocator.deallocate(allocator.allocate((std::size_t{1} << 63) + 1), 0);
    EXPECT_EQ(taken.bytes, sizeof(T));

    KXMBasCFDAllocator<T>::SetAllocFunc(KXMCfdDefaultMalloc);
    KXMBasCFDAllocator<T>::SetFreeFunc(KXMCfdDefaultFree);
    EXPECT_EQ(allocator.max_size(), 0xFFFFFFFFU);
    std::vector<T, KXMBasCFDAllocator<T>> numbers(10, T{1});
    numbers.resize(1000, T{2});
    EXPECT_EQ(numbers[9] + numbers[999], T{3});
}

TEST(CfdAllocator, EachInstanceHasCallbacksOfItsOwn) {
    static_assert(std::is_empty_v<KXMBasCFDAllocator<int>>);
    KXMBasCFDAllocator<double>::SetAllocFunc(take);
    KXMBasCFDAllocator<double>::SetFreeFunc(give);
    expect_callbacks<int>("int");
    expect_callbacks<unsigned int>("unsigned int");
    KXMBasCFDAllocator<double>::SetAllocFunc(KXMCfdDefaultMalloc);
    KXMBasCFDAllocator<double>::SetFreeFunc(KXMCfdDefaultFree);
    expect_callbacks<double>("double");
}

TEST(TableAllocator, IsAssignedWithoutEffect) {
    KXMBasOmiTableAllocator one;
    const KXMBasOmiTableAllocator other;
    EXPECT_EQ(&(one = other), &one);
}

TEST(SmallBlocks, ComeFromTheTinyPoolWhetherItIsOnOrOff) {
    KXMBasMemSmallBlockAllocator allocator;
    auto* const first = static_cast<char*>(allocator.allocate(0));
    auto* const second = static_cast<char*>(allocator.allocate(4));
    EXPECT_EQ(second - first, 4) << "not two slots of the smallest class";
    void* const largest = allocator.allocate(128);
    EXPECT_EQ(recorded_fatal_errors(), 0);
    for (const int size : {129, -1}) {
        const int before = recorded_fatal_errors();
        allocator.allocate(size);
        EXPECT_EQ(recorded_fatal_errors(), before + 1);
        EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:siz < 129");
    }
    for (void* const block : {static_cast<void*>(first), static_cast<void*>(second), largest}) {
        allocator.deallocate(block);
    }
    EXPECT_EQ(allocator.allocate(3), second);
    allocator.deallocate(second);
}

// While it lives, stacks are empty texts, had as quickly as can be.
class EmptyStacks {
public:
    EmptyStacks() {
        const KXMBasCallStack first(20, nullptr); // binds the debug help, for good
        first.DeleteCStr(first.CStr());
        walk_ = KXMBasCallStack::s_StackWalkFunction;
        KXMBasCallStack::s_StackWalkFunction = DUMMY_STACKWALK;
    }
    ~EmptyStacks() { KXMBasCallStack::s_StackWalkFunction = walk_; }

private:
    KXMBasCallStack::StackWalkFunction walk_;
};

// The table grows with the 1048577th block. It takes some seconds, in this process, which has no limit
// of a minute as a child has.
TEST(TrackingAllocator, KeepsEarlyEntriesWhenItGrows) {
    const EmptyStacks empty;
    const test::Sized_back_end back_end;
    const std::size_t before = mem_FootprintFromResources();
    testing::internal::CaptureStdout();
    {
        KXMBasMemTrackAlloc memory;
        memory.Alloc(8);
        void* const early = memory.Alloc(8);
        for (int i = 2; i < 1048576; ++i) {
            memory.Free(memory.Alloc(8));
        }
        memory.Alloc(8);
        memory.Free(early);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "0. UNRELEASED MEMORY FROM\n\n"
                                                      "1048576. UNRELEASED MEMORY FROM\n\n");
    EXPECT_EQ(back_end.live(), 2U) << "tables among them";
    // Half a gigabyte; the stacks of the releases would be two.
    EXPECT_LT(mem_FootprintFromResources(), before + 500000);
}

template <class Pool> void expect_pool(int id, const char* name) {
    SCOPED_TRACE(name);
    Pool& pool = Pool::Instance();
    EXPECT_EQ(&pool, &Pool::Instance());
    EXPECT_EQ(&pool, pools_of_component(id)) << "another component has one of its own";
    EXPECT_EQ(pool.PoolID(), id);
    EXPECT_STREQ(pool.PoolName(), name);
    void* const block = pool.Alloc(100);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(pool.MemoryPeak(), 0U) << "active before it was activated";
    pool.Activate();
    pool.Free(pool.Alloc(100));
    EXPECT_NE(pool.MemoryPeak(), 0U);
    omi_SingletonBase<Pool>::Finalize();
    KXMBasMemPool& fresh = *pools_of_component(id); // made there and ended here
    EXPECT_EQ(fresh.MemoryPeak(), 0U);
    EXPECT_EQ(fresh.Free(block), 0U) << "active before it was activated";
    omi_SingletonBase<Pool>::Finalize();
    omi_SingletonBase<Pool>::Finalize(); // there is none
}

TEST(NamedPools, AreOneForAllComponentsAndBeginAfreshAfterFinalize) {
    const test::Sized_back_end back_end; // a pool counts by the size words of its blocks
    expect_pool<KXMBasMemPoolCow>(1001, "cow_containers");
    expect_pool<KXMBasMemPoolVector>(1010, "KXMBasVector");
    expect_pool<KXMBasMemPoolMap>(1011, "KXMBasMap");
    KXMBasMemPoolMap::Instance().Activate();
    end_map_of_component(); // made here and ended there
    EXPECT_EQ(KXMBasMemPoolMap::Instance().Free(mem_Malloc(100)), 0U);
    end_map_of_component();
}

} // namespace
