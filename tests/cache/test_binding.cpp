// The cache pool as bindings/kxm_cache_pool.h offers it: what the bare pool leaves to its client.
#include "kxm_cache_pool.h"

#include "mem_Interface.h"
#include "recording_KX0CORE.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

// Refuses by an exception, as mem_Allocator does, while it is told to.
class Source : public mem_Allocator {
public:
    void* Malloc(const char* tag, std::size_t size) override {
        if (refuse) {
            throw std::bad_alloc();
        }
        return mem_Allocator::Malloc(tag, size);
    }
    bool refuse = false;
};

struct Record {
    kxm::CachePool::ID id = 0U;
    std::vector<unsigned char> bytes{};
};

class Shadow {
public:
    explicit Shadow(mem_Allocator& source) : pool_(source) {}

    void resize(Record& record, std::size_t bytes) {
        record.id = pool_.ReAlloc(record.id, record.bytes.size(), bytes);
        const std::size_t kept = std::min(bytes, record.bytes.size());
        record.bytes.resize(bytes);
        for (std::size_t i = kept; i < bytes; ++i) {
            record.bytes[i] = static_cast<unsigned char>(random_());
        }
        std::copy(record.bytes.begin() + static_cast<std::ptrdiff_t>(kept), record.bytes.end(),
                  static_cast<unsigned char*>(pool_.Ptr(record.id)) + kept);
    }
    bool holds(const Record& record) const {
        return std::equal(record.bytes.begin(), record.bytes.end(),
                          static_cast<const unsigned char*>(pool_.Ptr(record.id)));
    }
    void release(Record& record) {
        pool_.Free(record.id);
        record = Record();
    }
    // Of any kind: a slot, a chunk, a block of its own.
    std::size_t any_size() {
        return 1 + random_() % std::vector<std::size_t>{128, 2000, 16384, 60000}[random_() % 4];
    }
    std::size_t any(std::size_t count) { return random_() % count; }

private:
    kxm::CachePool pool_;
    std::mt19937 random_{20261};
};

TEST(CachePoolBinding, AnyRequestMayFollowAnyRelease) {
    const int fatal_errors = recorded_fatal_errors();
    Source source;
    kxm::CachePool pool(source);
    for (const std::size_t first : {8U, 480U, 16384U}) {
        for (const std::size_t second : {8U, 480U, 16384U, 20000U}) {
            pool.Free(pool.Alloc(first));
            const auto id = pool.Alloc(second);
            pool.Free(pool.ReAlloc(id, second, 1000));
        }
    }
    EXPECT_TRUE(pool.Alloc(0).IsNull());
    EXPECT_EQ(pool.Ptr(0U), nullptr);
    pool.Free(0U);
    EXPECT_EQ(recorded_fatal_errors(), fatal_errors);
}

// Few records, so that clusters run empty all the time, of sizes that change their kind; and memory that is
// refused now and then, after which everything is as it was.
TEST(CachePoolBinding, HoldsItsRecordsThroughEmptiedClustersAndRefusals) {
    const int fatal_errors = recorded_fatal_errors();
    Source source;
    Shadow shadow(source);
    std::vector<Record> records(12);
    int refusals = 0;
    for (int step = 0; step < 20000; ++step) {
        Record& record = records[shadow.any(records.size())];
        if (shadow.any(3) == 0) {
            shadow.release(record);
            continue;
        }
        source.refuse = shadow.any(4) == 0;
        try {
            shadow.resize(record, shadow.any_size());
        } catch (const std::bad_alloc&) {
            ++refusals;
        }
        source.refuse = false;
        ASSERT_TRUE(std::all_of(records.begin(), records.end(),
                                [&](const Record& each) { return shadow.holds(each); }))
            << "step " << step;
    }
    EXPECT_GT(refusals, 100);
    EXPECT_EQ(recorded_fatal_errors(), fatal_errors);
}

} // namespace
