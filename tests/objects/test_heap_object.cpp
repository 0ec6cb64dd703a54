// The heap's allocator object on a heap whose requests to the system the test can see and refuse.
#include "../heap/heap_fixture.h"

#include "mem_Mallinfo.h"
#include "objects/heap_allocator_object.h"

namespace {

using test::Heap;
using test::SystemWatch;

TEST_F(Heap, ItsObjectTriesTwice) {
    mem_DLAllocator& object = allocator_objects::heap;
    constexpr std::size_t large = 1 << 20; // a mapping of its own
    object.Free("tests", object.Malloc("tests", 1));
    SystemWatch watch;
    const auto tries = [&](std::size_t refusals, auto request) {
        watch.requests = 0;
        watch.refuse_from = 0;
        watch.refuse_count = refusals;
        void* const block = request();
        object.Free("tests", block);
        return block != nullptr;
    };
    const auto requests = [&](auto request) {
        // A refused mapping is asked for once more as a segment, so one try is two requests.
        EXPECT_TRUE(tries(2, request));
        EXPECT_FALSE(tries(4, request));
        EXPECT_EQ(watch.requests, 4U);
    };
    requests([&] { return object.Malloc("tests", large); });
    requests([&] { return object.Realloc("tests", nullptr, large); });
    requests([&] { return object.Memalign("tests", 4096, large); });
}

} // namespace
