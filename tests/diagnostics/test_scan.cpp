// The address-space reports: to the letter over a map that the test plays, and against the test's own
// view of the process's map. The stack tools, and the announced protection page.
#include "KXMBasMem.h"
#include "own_view.h"
#include "played_system.h"

#include "platform/compiler.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

constexpr std::uint64_t no_limit = ~std::uint64_t{0};

std::string report(MEM_SCAN_LEVEL_ENM level, std::uint64_t limit) {
    testing::internal::CaptureStdout();
    mem_ScanMemory(level, limit);
    return testing::internal::GetCapturedStdout();
}

constexpr std::uint64_t straddling = 0x1000000;

// No answer at 0x900000; the last region reaches across 2 GiB.
bool play(os::UpwardQueries&, const void* pointer, os::Region& region) {
    const auto address = reinterpret_cast<std::uintptr_t>(pointer);
    const os::Region map[] = {
        {0, 0, 0x200000, os::state_free, 0},
        {0x200000, 0, 0x300000, os::state_commit, os::type_private},
        {0x500000, 0, 0x400000, os::state_reserve, os::type_private},
        {0xd00000, 0, 0x100000, 5, os::type_image},
        {0xe00000, 0, 0x200000, os::state_free, 0},
        {straddling, 0, 0x120000000, os::state_commit, os::type_mapped},
    };
    EXPECT_LE(address, straddling);
    for (const os::Region& known : map) {
        if (known.base == address) {
            region = known;
            return true;
        }
    }
    return false;
}

TEST(ScanMemory, PrintsItsReportsToTheLetter) {
    test::PlayedSystem system;
    system->vm_query = play;
    const std::string header = "Address  End      State        Type                  Size \n"
                               "-------- -------- -----        ----                 ------\n";
    EXPECT_EQ(report(MEM_SCAN_DETAILED, no_limit),
              header + "00000000 00200000 MEM_FREE     NONE                 2097152\n"
                       "00200000 00500000 MEM_COMMIT   MEM_PRIVATE          3145728\n"
                       "00500000 00900000 MEM_RESERVE  MEM_PRIVATE          4194304\n"
                       "00900000 00d00000 MEM_RESERVE  MEM_PRIVATE          4194304\n"
                       "00d00000 00e00000 UNKN MEM STA MEM_IMAGE            1048576\n"
                       "00e00000 01000000 MEM_FREE     NONE                 2097152\n"
                       "01000000 21000000 MEM_COMMIT   MEM_MAPPED         536870912\n"
                       "\nMEMORY USE SUMMARY\n"
                       "   Free Memory      =                4 MB\n"
                       "   Committed Memory =             4611 MB\n"
                       "   Reserved Memory  =                8 MB\n"
                       "                              \n"
                       "   Max Free Block Size     =         2 MB   PTR = 00000000"
                       "                              \n"
                       "   Max Reserved Block Size =         4 MB   PTR = 00500000\n"
                       "\n");
    EXPECT_EQ(report(MEM_SCAN_FREE_ONLY, no_limit),
              "0  --  State = MEM_FREE      --  Type = NONE         --  RegionSize = 2097152\n"
              "e00000  --  State = MEM_FREE      --  Type = NONE         --  RegionSize = 2097152\n"
              "\nMEMORY USE SUMMARY\n"
              "   Free Memory      =                4 MB\n"
              "   Committed Memory =          4721664 MB\n"
              "   Reserved Memory  =             8192 MB\n"
              "\n   Max Free Block Size =                2 MB\n"
              "    PTR = 0\n"
              "   Max Reserved Block Size =                4 MB\n"
              "   PTR = 500000\n"
              "\n");
    const std::string summary = "\nMEMORY USE SUMMARY\n"
                                "   Free Memory      =          4194304\n"
                                "   Committed Memory =       4834983936\n"
                                "   Reserved Memory  =          8388608\n"
                                "\n   Max Free Block Size =   2097152\n"
                                "    PTR = 00000000\n"
                                "   Max Reserved Block Size =   4194304\n"
                                "   PTR = 00500000\n"
                                "\n";
    for (const int level : {2, 7, -1}) {
        EXPECT_EQ(report(static_cast<MEM_SCAN_LEVEL_ENM>(level), no_limit), summary);
    }
    // A region that begins below the limit counts whole.
    EXPECT_EQ(report(MEM_SCAN_SUMMARY_ONLY, straddling + 1), summary);
    EXPECT_NE(report(MEM_SCAN_FREE_ONLY, 0x500001).find("Reserved Memory  =             4096 MB"),
              std::string::npos);
    const std::string empty = report(MEM_SCAN_DETAILED, 0);
    EXPECT_EQ(empty.find(header + "\nMEMORY"), 0U);
    EXPECT_EQ(empty.find_first_of("123456789"), std::string::npos) << empty;

    system->vm_query = [](os::UpwardQueries&, const void*, os::Region&) { return false; };
    EXPECT_EQ(report(MEM_SCAN_SUMMARY_ONLY, no_limit).find_first_of("123456789"), std::string::npos)
        << "a system that never answers ends the walk";
}

TEST(ScanMemory, SeesTheProcessesMap) {
    // Hundreds of regions: committed, reserved, left free, and so on.
    constexpr std::uint64_t from = 0x30000000, unit = 65536, claims = 400;
    for (std::uint64_t i = 0; i < claims; ++i) {
        ASSERT_TRUE(test::claim(from + (i + i / 2) * unit, unit, i % 2 == 0));
    }
    const std::string seen = report(MEM_SCAN_DETAILED, no_limit);
    const auto map = test::low_map();
    for (std::uint64_t i = 0; i < claims; ++i) {
        test::give_back(from + (i + i / 2) * unit, unit);
    }
    EXPECT_GT(map.size(), claims + claims / 2);
    std::string rows;
    for (const test::MapRegion& region : map) {
        if (region.start < from) { // where the runtime's heap may have grown since
            continue;
        }
        char row[100];
        const char* const state = region.state == 4096   ? "MEM_COMMIT"
                                  : region.state == 8192 ? "MEM_RESERVE"
                                                         : "MEM_FREE";
        const char* const type = region.type == 0          ? "NONE"
                                 : region.type == 131072   ? "MEM_PRIVATE"
                                 : region.type == 16777216 ? "MEM_IMAGE"
                                                           : "MEM_MAPPED";
        std::snprintf(row, sizeof row, "%08x %08x %-12s %-11s %16d\n",
                      static_cast<unsigned>(region.start),
                      static_cast<unsigned>(region.start + region.size), state, type,
                      static_cast<int>(static_cast<unsigned>(region.size)));
        rows += row;
    }
    const std::size_t begin = seen.find("\n30000000") + 1;
    EXPECT_TRUE(seen.substr(begin, seen.find("\nMEMORY") - begin) == rows) << seen;
    testing::internal::CaptureStdout();
    mem_scanmemory_ifc();
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("Address  End"), 0U);
}

constexpr std::uint64_t mark = 0x5354'4143'4b21'0001;
constexpr std::size_t words = 65536;

// Half a mebibyte below the caller, and where it was.
KXM_NO_SANITIZE void leave_marks(std::uintptr_t& where) {
    volatile std::uint64_t array[words];
    for (volatile std::uint64_t& word : array) {
        word = mark;
    }
    where = reinterpret_cast<std::uintptr_t>(&array[0]);
}

// The same a mebibyte further down.
KXM_NO_SANITIZE void leave_marks_deep(std::uintptr_t& where) {
    volatile char level[1048576];
    level[0] = 0;
    leave_marks(where);
    where += static_cast<unsigned char>(level[0]); // alive until here
}

// Away from the near end, which any call writes over.
KXM_NO_SANITIZE std::size_t marks_left(std::uintptr_t array) {
    std::size_t left = 0;
    for (std::size_t i = 0; i < words / 2; ++i) {
        const void* const word = reinterpret_cast<const void*>(array + i * sizeof mark);
        left += static_cast<std::size_t>(os::peek_word(word) == mark);
    }
    return left;
}

TEST(StackSweep, ZeroesTheStackBelow) {
    std::uintptr_t array = 0;
    for (const int levels : {0, -1, INT32_MIN}) {
        leave_marks(array);
        { const KXMBasMemStackSweep nothing(levels); }
        EXPECT_EQ(marks_left(array), words / 2) << levels;
    }
    leave_marks(array);
    { const KXMBasMemStackSweep sweep(1); }
    EXPECT_EQ(marks_left(array), 0U);
    EXPECT_EQ(mem_ClearStackLevels(1), 0);
    if (os::properties().directory_separator ==
        '/') { // stacks on Windows have two mebibytes in all
        leave_marks_deep(array);
        { const KXMBasMemStackSweep sweep(2); }
        EXPECT_EQ(marks_left(array), 0U);
    }
    EXPECT_EQ(mem_getStackTop() + mem_getStackDepth(), 0U);
}

TEST(ProtectionPage, OnlyAnnouncesItself) {
    testing::internal::CaptureStdout();
    delete new mem_ProtectionPage(reinterpret_cast<void*>(0x1234'00ab'cdef), 0x1'8000'0000);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Creating a protection page at address 0x00abcdef, size -2147483648\n"
              "DESTROYING a PROTECTION PAGE ...\n"
              "Destroying a protection page at address 0x00000000, size 0\n");
}

} // namespace
