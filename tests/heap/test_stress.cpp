// Long histories against the shadow model: seeded random ones, and those that a fuzzer once failed
// on or found worth keeping.
#include "heap_fixture.h"
#include "heap_operations.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

namespace {

std::vector<std::uint8_t> random_bytes(std::uint32_t seed, std::size_t count) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes(count);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

TEST(HeapStress, ShortHistoriesUnderTheWalker) {
    for (std::uint32_t seed = 1; seed <= KXM_STRESS_SEEDS; ++seed) {
        const std::vector<std::uint8_t> bytes = random_bytes(seed, 1500);
        ASSERT_EQ(test::run_heap_operations(bytes.data(), bytes.size()), "") << "seed " << seed;
    }
}

TEST(HeapStress, LongHistories) {
    for (std::uint32_t seed = 1001; seed <= 1000 + KXM_STRESS_SEEDS / 25; ++seed) {
        const std::vector<std::uint8_t> bytes = random_bytes(seed, 30000);
        ASSERT_EQ(test::run_heap_operations(bytes.data(), bytes.size(), 16), "") << "seed " << seed;
    }
}

TEST(HeapStress, KeptHistories) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(KXM_HEAP_CORPUS)) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> text{std::istreambuf_iterator<char>(file), {}};
        const std::vector<std::uint8_t> bytes(text.begin(), text.end());
        EXPECT_EQ(test::run_heap_operations(bytes.data(), bytes.size()), "") << entry.path();
        ++count;
    }
    EXPECT_GT(count, 0U);
}

} // namespace
