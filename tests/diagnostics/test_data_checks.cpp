// Data checks: what counts as a NaN, what scans find and in which order, what fills leave, and lines
// for unit 7 in a program without Fortran.
#include "child.h"

#include "KXMBasMem.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

using U32 = std::uint32_t;
using U64 = std::uint64_t;

double from_bits(U64 bits) {
    return std::bit_cast<double>(bits);
}

float from_bits(U32 bits) {
    return std::bit_cast<float>(bits);
}

template <typename Value> std::string kind(Value value) {
    EXPECT_FALSE(omi_isQnan(value) && omi_isSnan(value));
    EXPECT_EQ(omi_isnan(value), omi_isQnan(value) || omi_isSnan(value));
    return omi_isQnan(value) ? "quiet" : omi_isSnan(value) ? "signalling" : "none";
}

TEST(FloatingPoint, NansAreToldByTheMasks) {
    for (const U64 sign : std::initializer_list<U64>{0ULL, 0x8000000000000000ULL}) {
        EXPECT_EQ(kind(from_bits(sign | 0x7ff8000000000000)), "quiet");
        EXPECT_EQ(kind(from_bits(sign | 0x7fffffffffffffff)), "quiet");
        EXPECT_EQ(kind(from_bits(sign | 0x7ff0000000000001)), "signalling");
        EXPECT_EQ(kind(from_bits(sign | 0x7ff0800000000000)), "signalling");
        // Infinity, and fractions in the three bits that the mask leaves out.
        for (const U64 bits :
             std::initializer_list<U64>{0x7ff0000000000000, 0x7ff1000000000000, 0x7ff2000000000000,
                                        0x7ff4000000000000, 0x7ff7000000000000}) {
            EXPECT_EQ(kind(from_bits(sign | bits)), "none") << std::hex << bits;
        }
        EXPECT_EQ(kind(from_bits(sign | 0x7fefffffffffffff)), "none");
    }
    for (const U32 sign : std::initializer_list<U32>{0U, 0x80000000U}) {
        EXPECT_EQ(kind(from_bits(sign | 0x7fc00000)), "quiet");
        for (const U32 bits :
             std::initializer_list<U32>{0x7f800001U, 0x7fa00000U, 0x7f900000U, 0x7f880000U}) {
            EXPECT_EQ(kind(from_bits(sign | bits)), "signalling") << std::hex << bits;
        }
        EXPECT_EQ(kind(from_bits(sign | 0x7f800000)), "none");
        EXPECT_EQ(kind(from_bits(sign | 0x7f7fffff)), "none");
    }
}

template <typename Word> Word flushed(Word bits) {
    auto value = from_bits(bits);
    omi_flushDenormal(value);
    return std::bit_cast<Word>(value);
}

TEST(FloatingPoint, DenormalsBecomePositiveZeroAndAllElseStays) {
    for (const U64 bits :
         std::initializer_list<U64>{0x8000000000000001, 0x0000000000000001, 0x000fffffffffffff,
                                    0x8008000000000000, 0x0000800000000000}) {
        EXPECT_EQ(flushed(bits), 0U) << std::hex << bits;
    }
    for (const U64 bits : std::initializer_list<U64>{
             0x8000000000000000, 0x8010000000000000, 0x0010000000000000, 0x0007000000000000,
             0x8001000000000000, 0x7ff0000000000001, 0x3ff0000000000000}) {
        EXPECT_EQ(flushed(bits), bits) << std::hex << bits;
    }
    for (const U32 bits : std::initializer_list<U32>{0x80000001U, 0x007fffffU, 0x00700000U}) {
        EXPECT_EQ(flushed(bits), 0U) << std::hex << bits;
    }
    for (const U32 bits : std::initializer_list<U32>{0x80000000U, 0x80800000U, 0x7f800001U}) {
        EXPECT_EQ(flushed(bits), bits) << std::hex << bits;
    }
}

std::string printed(const std::function<void()>& work) {
    testing::internal::CaptureStdout();
    work();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

std::string complained(const std::function<void()>& work) {
    testing::internal::CaptureStderr();
    work();
    return testing::internal::GetCapturedStderr();
}

TEST(Scan, FindsEveryNanInOrderAmongInfinities) {
    std::mt19937 random(7);
    std::vector<double> values(700);
    const std::array<U64, 6> odd{0x7ff0000000000000U, 0xfff7000000000000U, 0x7ff8000000000000U,
                                 0xfff0000000000001U, 0x0000000000000001U, 0xffffffffffffffffU};
    for (int round = 0; round < 200; ++round) {
        const std::size_t first = random() % 9;
        const std::size_t count = round % 2 == 0 ? random() % 690 : 64 * (random() % 10);
        std::fill(values.begin(), values.end(), 1.5);
        for (std::size_t left = random() % 12; left > 0; --left) {
            values[random() % values.size()] = from_bits(odd[random() % odd.size()]);
        }
        std::string expected;
        for (std::size_t i = 0; i < count; ++i) {
            if (omi_isnan(values[first + i])) {
                char line[200];
                std::snprintf(line, sizeof line,
                              "*** NAN found at K[%" PRIu64 "]: %12.2E at f.f90, line 12\n",
                              static_cast<std::uint64_t>(i), values[first + i]);
                expected += line;
            }
        }
        ASSERT_EQ(printed([&] {
                      KXMBasMemoryScan("K", &values[first], count, KXMBasMemoryScanNan, "f.f90",
                                       12);
                  }),
                  expected)
            << "round " << round;
    }
    const double nan = from_bits(U64{0x7ff8000000000000});
    EXPECT_EQ(printed([&] { KXMBasMemoryScan("K", &nan, 1, KXMBasMemoryScanNan, "f", 1); }),
              "*** NAN found at K[0]:          NAN at f, line 1\n");
}

TEST(Scan, ReportsATypeThatItDoesNotKnowUnlessThereIsNothingToScan) {
    const double value = from_bits(U64{0x7ff8000000000000});
    for (const int type : {0, 2, -3}) {
        const auto unknown = static_cast<KXMBasMemoryScanType>(type);
        EXPECT_EQ(complained([&] {
                      EXPECT_EQ(printed([&] { KXMBasMemoryScan("K", &value, 1, unknown, "f", 1); }),
                                "");
                      KXMBasMemoryScan("K", nullptr, 1, unknown, "f", 1);
                      KXMBasMemoryScan("K", &value, 0, unknown, "f", 1);
                  }),
                  "*** Error: KXMBasMemoryScan for type " + std::to_string(type) +
                      " is not implemented\n");
    }
}

// Words lie where they lie: at any address, and only those that are whole.
template <typename Word, typename Pattern>
void scan_like_a_plain_loop(Pattern pattern, const std::string& shown) {
    std::mt19937 random(3);
    std::vector<unsigned char> bytes(3000);
    for (int round = 0; round < 100; ++round) {
        std::fill(bytes.begin(), bytes.end(), static_cast<unsigned char>(0x11));
        for (std::size_t left = random() % 9; left > 0; --left) {
            std::memcpy(&bytes[random() % 2900], &pattern, sizeof pattern);
        }
        unsigned char* const start = &bytes[random() % 17];
        const std::size_t size = random() % 2900;
        std::string expected;
        for (std::size_t i = 0; i < size / sizeof(Word); ++i) {
            if (std::memcmp(start + i * sizeof(Word), &pattern, sizeof pattern) == 0) {
                expected += "*** PATTERN FOUND at mem[" + std::to_string(i) + "]: " + shown + "\n";
            }
        }
        ASSERT_EQ(complained([&] { KXMBasMemoryScan(start, pattern, size); }), expected);
    }
    std::memcpy(bytes.data(), &pattern, sizeof pattern);
    EXPECT_EQ(complained([&] { KXMBasMemoryScan(bytes.data(), pattern, sizeof(Word) - 1); }), "");
}

TEST(Scan, FindsPatternsOfBothWidths) {
    scan_like_a_plain_loop<std::uint64_t>(std::uint64_t{0x12345678deadbee5}, "deadbee5");
    scan_like_a_plain_loop<std::uint32_t>(-2, "fffffffe");
}

TEST(Fill, ActsOnWholeWordsAndOnlyWithTheVariable) {
    test::ChildRequest request{test::sibling_program("data_checks_probe"), {"fill"}, {}};
    request.environment = {{"MC_RESULT", std::nullopt}};
    EXPECT_EQ(test::run_child(request).out, "................ .............. ..........\n");
    request.environment = {{"MC_RESULT", ""}};
    EXPECT_EQ(test::run_child(request).out, "abcdefghabcdefgh ABCDABCDABCD.. ..........\n0\n");
}

TEST(Message, GoesToAFileOfTheUnitWhereThereIsNoFortran) {
    const std::string folder = test::scratch_folder("unit7");
    const test::ChildRequest request{
        test::sibling_program("data_checks_probe"), {"message", folder}, {}};
    for (int run = 0; run < 2; ++run) { // the second finds the file of the first
        EXPECT_EQ(test::run_child(request).out, "one li|\n|\n|\nthe end|\n");
    }
    std::filesystem::remove(folder + "fort.7");
    std::filesystem::create_directory(folder + "fort.7"); // then they are lost, and nothing else
    const test::ChildResult lost = test::run_child(request);
    EXPECT_EQ(lost.exit_code, 0);
    EXPECT_EQ(lost.out, "");
}

TEST(Check, PlaceHoldersLeaveTheirArguments) {
    double array[2] = {1, 2};
    KXMBasMemoryCheckArrayI(nullptr);
    KXMBasMemoryCheckArrayP(nullptr);
    KXMBasMemoryCheckArrayR(nullptr);
    KXMBasMemoryCheckArrayD(array);
    std::int64_t value = 7;
    const float single = 0;
    const int whole = 3;
    KXMBasMemoryCheckVarSP(&single);
    KXMBasMemoryCheckVarINT(&whole);
    KXMBasMemoryCheckVarINT64(&value);
    KXMBasMemoryCheckVarDP(array);
    KXMBasMemorySink(value);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(array[0] + array[1], 3);
    EXPECT_EQ(memcheck_debug_printf("%d", 5), 1);
    EXPECT_EQ(locateMemCheckPrintf(), nullptr);
}

} // namespace
