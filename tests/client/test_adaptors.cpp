// The standard library's containers and algorithms on the adaptors of bindings/.
#include "client_probe.h"
#include "kxm_memory_resource.h"
#include "sized_back_end.h"

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <list>
#include <map>
#include <memory>
#include <numeric>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using test::Sized_back_end;

template <class T> using Pool = kxm::PoolAllocator<T>;
template <class T> using Handle = kxm::HandleAllocator<T>;

// Everything that a solver does with containers, on allocators made of `from`. Answers a checksum.
template <template <class> class A, class From> long work(From& from) {
    std::vector<int, A<int>> numbers(from);
    for (int i = 0; i < 1000; ++i) {
        numbers.push_back(i * 7919 % 1000);
    }
    std::vector<int, A<int>> sorted(numbers);
    std::sort(sorted.begin(), sorted.end());
    std::stable_partition(numbers.begin(), numbers.end(), [](int n) { return n % 2 == 0; });

    using String = std::basic_string<char, std::char_traits<char>, A<char>>;
    std::map<int, String, std::less<>, A<std::pair<const int, String>>> names(from), more(from);
    std::unordered_map<int, double, std::hash<int>, std::equal_to<>,
                       A<std::pair<const int, double>>>
        values(from);
    for (const int n : sorted) {
        names.try_emplace(n, String(static_cast<std::size_t>(n) % 50, 'x', from));
        values[n] = n * 0.5;
    }
    more.merge(names);
    values.rehash(5000);

    std::list<long, A<long>> line(sorted.begin(), sorted.end(), from), other(from);
    other.splice(other.end(), line, std::next(line.begin(), 10), line.end());
    line.merge(other);
    std::deque<short, A<short>> queue(from);
    for (int i = 0; i < 3000; ++i) {
        queue.push_front(static_cast<short>(i));
        queue.resize(i % 7 == 0 ? queue.size() / 2 : queue.size());
    }
    return std::accumulate(line.begin(), line.end(), 0L) + static_cast<long>(more.size()) +
           static_cast<long>(more.at(149).size()) + numbers[499] + static_cast<long>(queue.size());
}

TEST(Adaptors, ServeTheContainersAndShowInThePoolsFigures) {
    Sized_back_end back_end;
    KXMBasMemPool pool(2000, "containers", nullptr);
    pool.Activate();
    const long sum = work<Pool>(pool);
    EXPECT_GT(pool.MemoryPeak(), 100000U);
    EXPECT_EQ(pool.MemoryCurrent(), 0U);
    EXPECT_EQ(back_end.live(), 0U);
    std::allocator<int> plain;
    EXPECT_EQ(work<std::allocator>(plain), sum);
    {
        const std::size_t before = operatorNewPool.MemoryCurrent();
        const std::vector<double, Pool<double>> in_operator_pool(1000);
        EXPECT_EQ(operatorNewPool.MemoryCurrent(), before + Sized_back_end::chunk(8000));
    }
    const KXMBasAllocatorBase* base = nullptr;
    {
        const KXMBasAllocator handle(new KXMBasMemAllocatorNoInit);
        base = kxm::AllocatorAccess::base(handle);
        EXPECT_EQ(work<Handle>(handle), sum);
        EXPECT_EQ(kxm::AllocatorAccess::count(*base), 1);
        EXPECT_EQ(back_end.live(), 1U);
    }
    EXPECT_EQ(back_end.live(), 0U);
}

TEST(Adaptors, LetNodesMoveBetweenContainers) {
    Sized_back_end back_end;
    KXMBasMemPool pool(2000, "nodes", nullptr);
    pool.Activate();
    const auto move_a_node = [](auto& from, auto& to) {
        from[5] = 55;
        const int* const place = &from[5];
        auto node = from.extract(5);
        node.key() = 6;
        auto moved = std::move(node);
        EXPECT_TRUE(from.empty());
        to.insert(std::move(moved));
        EXPECT_EQ(&to.at(6), place);
        EXPECT_EQ(to.at(6), 55);
    };
    {
        using Map = std::map<int, int, std::less<>, Pool<std::pair<const int, int>>>;
        Map from(pool), to(pool);
        move_a_node(from, to);
        auto dropped = to.extract(6);
        EXPECT_GT(pool.MemoryCurrent(), 0U);
    }
    EXPECT_EQ(pool.MemoryCurrent(), 0U);
    {
        const KXMBasAllocator handle(new KXMBasMemAllocator);
        using Map = std::unordered_map<int, int, std::hash<int>, std::equal_to<>,
                                       Handle<std::pair<const int, int>>>;
        Map from(0, handle), to(0, handle);
        move_a_node(from, to);
    }
    // Up to GCC 12 the standard library forgets the copy of the allocator in a node that is inserted,
    // and so the object behind the handle stays.
    EXPECT_LE(back_end.live(), 1U);
}

static_assert(!std::is_default_constructible_v<Handle<int>>, "a handle of what?");
static_assert(std::is_same_v<std::allocator_traits<Pool<int>>::rebind_alloc<double>, Pool<double>>);
static_assert(std::is_nothrow_copy_constructible_v<Handle<int>>);

TEST(Adaptors, CompareByPoolAndPropagateWhenMovedOrSwapped) {
    Sized_back_end back_end;
    KXMBasMemPool one_pool(1, "one", nullptr), two_pool(2, "two", nullptr);
    one_pool.Activate();
    two_pool.Activate();
    const Pool<int> one(one_pool), two(two_pool);
    EXPECT_TRUE(one == Pool<double>(one));
    EXPECT_TRUE(one != two);
    const KXMBasAllocator shared(new KXMBasMemAllocator), other(new KXMBasMemAllocator);
    const KXMBasAllocator copy(shared);
    EXPECT_TRUE(Handle<int>(shared) == Handle<char>(Handle<int>(copy)));
    EXPECT_TRUE(Handle<int>(shared) != Handle<int>(other));

    std::vector<int, Pool<int>> a(100, 1, one), b(200, 2, two);
    a = b; // keeps its own
    EXPECT_TRUE(a.get_allocator() == one);
    EXPECT_EQ(a, b);
    const int* const data = b.data();
    std::vector<int, Pool<int>> c(one);
    c = std::move(b); // takes the other's, with the memory
    EXPECT_EQ(c.data(), data);
    EXPECT_TRUE(c.get_allocator() == two);
    std::swap(a, c);
    EXPECT_EQ(a.data(), data);
    EXPECT_TRUE(a.get_allocator() == two && c.get_allocator() == one);
    EXPECT_TRUE(std::vector(c).get_allocator() == one);
    // A copy that moves between pools is accounted for in each.
    const std::vector<int, Pool<int>> moved(std::move(c), two);
    c = std::vector<int, Pool<int>>(one);
    EXPECT_EQ(one_pool.MemoryCurrent(), 0U);
    EXPECT_EQ(two_pool.MemoryCurrent(), 2 * Sized_back_end::chunk(800));
}

template <std::size_t alignment> struct alignas(alignment) Aligned {
    Aligned() { EXPECT_EQ(reinterpret_cast<std::uintptr_t>(this) % alignment, 0U); }
    Aligned(const Aligned&) : Aligned() {}
    Aligned& operator=(const Aligned&) = default;
    double value = 0;
};

TEST(Adaptors, PlaceOverAlignedTypes) {
    Sized_back_end back_end; // whose blocks are on 8 bytes alone
    KXMBasMemPool pool(1, "aligned", nullptr);
    pool.Activate();
    {
        std::vector<Aligned<16>, Pool<Aligned<16>>> sixteens(pool);
        std::vector<Aligned<4096>, Pool<Aligned<4096>>> pages(5, pool);
        std::list<Aligned<64>, Pool<Aligned<64>>> lines(20, pool);
        std::map<int, Aligned<32>, std::less<>, Pool<std::pair<const int, Aligned<32>>>> map(pool);
        for (int i = 0; i < 50; ++i) {
            sixteens.emplace_back();
            map[i];
        }
        pages.resize(9);
        lines.sort([](const auto& a, const auto& b) { return a.value < b.value; });
    }
    EXPECT_EQ(pool.MemoryCurrent(), 0U);
    EXPECT_EQ(back_end.live(), 0U);
}

TEST(Adaptors, ThrowWhenMemoryIsShortAndLeaveTheContainerAsItWas) {
    Sized_back_end back_end;
    KXMBasMemPool pool(1, "short", nullptr);
    const KXMBasAllocator handle(new KXMBasMemAllocator);
    std::vector<int, Pool<int>> numbers(10, 7, pool);
    std::map<int, int, std::less<>, Handle<std::pair<const int, int>>> map({{1, 2}}, handle);
    numbers.shrink_to_fit();
    back_end.refuse(2);
    EXPECT_THROW(numbers.push_back(1), std::bad_alloc);
    EXPECT_THROW(map[2], std::bad_alloc);
    EXPECT_EQ(numbers, (std::vector<int, Pool<int>>(10, 7, pool)));
    EXPECT_EQ(map.size(), 1U);

    const volatile std::size_t most = static_cast<std::size_t>(-1); // no size for a compiler to see
    EXPECT_THROW(Pool<double>(pool).allocate(most / 8 + 1), std::bad_array_new_length);
    EXPECT_THROW(Pool<Aligned<64>>(pool).allocate(most / 64), std::bad_alloc);
    kxm::HandleResource resource(handle);
    back_end.refuse(1);
    EXPECT_THROW(static_cast<void>(resource.allocate(100, 64)), std::bad_alloc);
    EXPECT_THROW(static_cast<void>(resource.allocate(most - 63, 64)), std::bad_alloc);
}

TEST(Adaptors, ServeContainersOfPmr) {
    Sized_back_end back_end;
    KXMBasMemPool pool(1, "pmr", nullptr);
    pool.Activate();
    const KXMBasAllocator handle(new KXMBasMemAllocator);
    {
        kxm::PoolResource resource(pool), same(pool), other;
        kxm::HandleResource shared(handle), shared_too{KXMBasAllocator(handle)};
        EXPECT_TRUE(resource.is_equal(same) && shared == shared_too);
        EXPECT_FALSE(resource == other || resource.is_equal(shared) ||
                     resource == *std::pmr::new_delete_resource());

        std::pmr::unordered_map<int, std::pmr::string> names(&resource);
        std::pmr::vector<std::pmr::list<Aligned<128>>> lists(&shared);
        for (int i = 0; i < 100; ++i) {
            names[i] = "a name that does not fit into the string itself";
            lists.emplace_back(3);
        }
        EXPECT_EQ(names.at(50).get_allocator().resource(), &resource);
        EXPECT_EQ(lists.back().get_allocator().resource(), &shared);
        std::pmr::monotonic_buffer_resource arena(&resource);
        const std::pmr::vector<double> in_arena(1000, &arena);
        EXPECT_GT(pool.MemoryCurrent(), 100 * 48 + 8000U);
    }
    EXPECT_EQ(pool.MemoryCurrent(), 0U);
    EXPECT_EQ(back_end.live(), 1U); // the allocator object
}

TEST(Adaptors, AlignOnEveryBackEnd) {
    for (const char* const backend :
         {"KXQ_CRTMALLOC", "KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_USE_ALIGNED_MEMORY"}) {
        const test::ChildResult result = test::run_probe({"adaptors"}, {{backend, "1"}});
        EXPECT_EQ(result.out, "0 accounted\n") << backend;
        EXPECT_EQ(result.err, "") << backend;
    }
    const test::ChildResult tiny = test::run_probe({"adaptors-tiny"}, {{"KXQ_DLALLOCATOR", "1"}});
    EXPECT_EQ(tiny.out.substr(0, 2), "0 ") << "what a pool counts of tiny blocks means nothing";
}

} // namespace
