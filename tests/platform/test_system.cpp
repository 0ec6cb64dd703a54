// Figures of the process (tests/diagnostics has the machine's and the drives'); the C runtime beyond the standard; files.
#include "platform/os.h"

#include "child.h"

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr std::uint64_t mib = 1024 * 1024;

TEST(Process, PrivateBytesFollowAnAllocationAndThePeakStays) {
    os::ProcessMemory before{}, during{}, after{};
    ASSERT_TRUE(os::process_memory(before));
    EXPECT_GE(before.peak_private_bytes, before.private_bytes);
    void* const block = os::vm_allocate(256 * mib, os::Placement::direct);
    ASSERT_NE(block, nullptr);
    std::memset(block, 1, 256 * mib); // Wine counts what was touched, a real system what was asked
    ASSERT_TRUE(os::process_memory(during));
    ASSERT_TRUE(os::vm_release(block));
    ASSERT_TRUE(os::process_memory(after));

    EXPECT_GE(during.private_bytes, before.private_bytes + 250 * mib);
    EXPECT_GE(during.resident_bytes, before.resident_bytes + 200 * mib);
    EXPECT_LE(after.private_bytes, during.private_bytes - 250 * mib);
    EXPECT_GE(after.peak_private_bytes, during.private_bytes);
}

TEST(ErrorText, IsCutToItsBufferAndEmptyForUnknownCodes) {
    char text[200], little[5];
    ASSERT_GT(os::error_text(2, text, sizeof text), 4U); // "no such file" on both systems
    EXPECT_EQ(std::strlen(text), os::error_text(2, text, sizeof text));
    EXPECT_EQ(os::error_text(2, little, sizeof little), 4U);
    EXPECT_EQ(std::string(little), std::string(text).substr(0, 4));
    EXPECT_EQ(os::error_text(0x7fffff01, text, sizeof text), 0U);
}

TEST(AlignedAlloc, HonoursEveryPowerOfTwoAndNothingElse) {
    for (std::size_t alignment = 1; alignment <= mib; alignment *= 2) {
        for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{1000}}) {
            void* const block = os::aligned_alloc(size, alignment);
            ASSERT_NE(block, nullptr) << alignment;
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0U);
            std::memset(block, 1, size);
            os::aligned_free(block);
        }
    }
    for (const std::size_t alignment : {0U, 3U, 24U, 100U}) {
        EXPECT_EQ(os::aligned_alloc(64, alignment), nullptr) << alignment;
    }
    for (const std::size_t below_the_top : {0U, 3U, 10U, 100U, 5000U}) {
        for (const std::size_t alignment : {8U, 64U, 4096U}) {
            EXPECT_EQ(os::aligned_alloc(SIZE_MAX - below_the_top, alignment), nullptr);
        }
    }
    os::aligned_free(nullptr);
}

TEST(BoundedPrint, KeepsNoPlaceForTheTerminator) {
    char buffer[8];
    const auto print = [&](std::size_t capacity, const char* text) {
        std::memset(buffer, '#', sizeof buffer);
        return os::bounded_print(buffer, capacity, "%s", text);
    };
    EXPECT_EQ(print(6, "abc"), 3);
    EXPECT_EQ(std::string(buffer, 8), std::string("abc\0####", 8));
    EXPECT_EQ(print(3, "abc"), 3);
    EXPECT_EQ(std::string(buffer, 8), "abc#####");
    EXPECT_EQ(print(2, "abc"), -1);
    EXPECT_EQ(std::string(buffer, 8), "ab######");
    EXPECT_EQ(print(0, "abc"), -1);
    EXPECT_EQ(std::string(buffer, 8), "########");
}

TEST(CurrentDirectory, FitsOrLeavesTheBuffer) {
    char path[4096] = "untouched";
    EXPECT_FALSE(os::current_directory(path, 2));
    EXPECT_STREQ(path, "untouched");
    EXPECT_TRUE(os::current_directory(path, sizeof path));
    EXPECT_GT(std::strlen(path), 1U);
}

std::string contents(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Files, AreMadeEmptyWrittenBinaryAndSeekable) {
    const std::string name = test::scratch_folder("files") + "record.bin";
    std::ofstream(name) << "what was there before, and longer";
    const os::File file = os::file_create(name.c_str());
    ASSERT_GE(file, 0);
    EXPECT_EQ(os::file_write(file, "one\ntwo\n", 8), 8);
    EXPECT_EQ(os::file_seek(file, 0), 0);
    EXPECT_EQ(os::file_write(file, "ONE", 3), 3);
    EXPECT_TRUE(os::file_close(file));
    EXPECT_EQ(contents(name), "ONE\ntwo\n");
    EXPECT_LT(os::file_write(file, "x", 1), 0) << "a closed file";
}

TEST(Files, TakeWideNamesAndRefuseBrokenOnes) {
    const std::string folder = test::scratch_folder("wide");
    std::u16string name = std::filesystem::path(folder).u16string();
    name += u"gr\u00f6\u00dfe\u4e2d\U0001f600.bin";
    const auto* const wide = reinterpret_cast<const unsigned short*>(name.c_str());
    const os::File file = os::file_create_wide(wide);
    ASSERT_GE(file, 0);
    EXPECT_TRUE(os::file_close(file));
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(name)));

    if (os::properties().directory_separator == '/') {
        using std::filesystem::perms;
        EXPECT_EQ(std::filesystem::status(name).permissions() & ~perms(0640), perms::none);
        const unsigned short broken[] = {'a', 0xd800, 'b', 0};
        EXPECT_LT(os::file_create_wide(broken), 0);
    }
    EXPECT_LT(os::file_create((folder + "no such folder/file").c_str()), 0);
}

} // namespace
