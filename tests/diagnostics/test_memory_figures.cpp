// Figures of machine, process and drives: against what the test finds out by itself, and with a system
// that the test plays, for what a healthy one never answers.
#include "KXMBasMem.h"
#include "own_view.h"
#include "played_system.h"

#include "child.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace {

using test::PlayedSystem;

constexpr std::uint64_t kib = 1024, mib = 1024 * kib, gib = 1024 * mib;
constexpr std::uint64_t ones = ~std::uint64_t{0};

void expect_close(std::uint64_t figure, std::uint64_t bytes, std::uint64_t tolerance_mib) {
    EXPECT_LE(figure, bytes / mib + tolerance_mib);
    EXPECT_GE(figure + tolerance_mib, bytes / mib);
}

TEST(MachineFigures, AreTheMachines) {
    KXMBasMemInfo info;
    EXPECT_TRUE(info.Initialize());
    expect_close(KXMBasMemInfo::Physical(), test::physical_bytes(), 1);
    expect_close(info.Virtual(), test::address_space_bytes(), 1);
    EXPECT_EQ(KXMBasMemInfo::Accessible(), std::min(KXMBasMemInfo::Physical(), info.Virtual()));
    EXPECT_EQ(mem_getPhysicalMemorySizeMB(), (test::physical_bytes() + mib - kib) / mib);
    EXPECT_EQ(mem_getVirtualMemorySizeMB(), (test::address_space_bytes() + mib - kib) / mib);
    std::uint64_t bytes = 0;
    EXPECT_EQ(mem_getPhysicalMemoryInBytes(&bytes), 0);
    EXPECT_EQ(bytes, test::physical_bytes() + 1047552);

    mem_GetWindowsMemory quiet;
    const mem_GetWindowsMemory reporting{mem_GetWindowsMemory::WithReports()};
    for (const mem_GetWindowsMemory& memory : {quiet, reporting}) {
        EXPECT_FALSE(memory.FoundError());
        EXPECT_FALSE(memory.GetErrors().GetErrors(3).pop().IsValid());
        EXPECT_NEAR(memory.GetAvailPhysMemoryMbytes(),
                    static_cast<double>(test::available_bytes() / mib),
                    memory.GetTotalPhysMemoryMbytes() / 16);
        EXPECT_LT(memory.GetAvailPhysMemoryMbytes(), memory.GetTotalPhysMemoryMbytes());
        EXPECT_LE(memory.GetMemoryLoad(), 100U);
    }
    // The older function's figures are the same but for the rounding, and the available ones drift.
    os::OlderMachineMemory older;
    os::older_machine_memory(older);
    EXPECT_EQ(older.total_physical, bytes - 1047552);
    EXPECT_EQ(older.total_virtual, test::address_space_bytes());

    EXPECT_EQ(KXMBasMemInfo::UNLIMITED, ones);
    EXPECT_EQ(info.StackSize() + info.CoreSize() + KXMBasMemInfo::CoreSize(7), 0U);
    EXPECT_EQ(KXMBasMemInfo::PageSize(), 0);
    EXPECT_STREQ(KXMBasMemInfo::HugePagesSetting(), "");
}

TEST(ProcessFigures, FollowTheProcess) {
    KXMBasMemInfo info;
    expect_close(info.Current(), test::private_bytes(), 4);
    expect_close(info.Resident(), test::resident_bytes(), 8);
    const std::uint64_t current = info.Current(), resident = info.Resident();
    {
        const auto block = std::make_unique<unsigned char[]>(64 * mib); // zeroed, so touched
        EXPECT_GE(info.Current(), current + 60);
        EXPECT_GE(info.Resident(), resident + 56);
        expect_close(info.Current(), test::private_bytes(), 4); // a checker's own comes on top
        expect_close(info.Resident(), test::resident_bytes(), 16);
        EXPECT_EQ(block[mib], 0);
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // which keep what is freed
    EXPECT_LT(info.Resident(), resident + 32) << "now, and not at its highest";
#endif
    PlayedSystem system;
    system->process_memory = [](os::ProcessMemory& figures) {
        figures = {3 * mib - 1, 0, 5 * mib + 1};
        return true;
    };
    EXPECT_EQ(info.Current(), 2U);
    EXPECT_EQ(info.Resident(), 5U);
    system->process_memory = [](os::ProcessMemory&) { return false; };
    EXPECT_EQ(info.Current() + info.Resident(), 0U);
}

os::MachineMemory played; // what GlobalMemoryStatusEx answers
int GlobalMemoryStatusEx_plays(os::MachineMemory* figures) {
    EXPECT_EQ(figures->length, 64U);
    *figures = played;
    return 1;
}

TEST(MachineFigures, AreRoundedByTheirRules) {
    PlayedSystem system;
    system->module_symbol = [](os::Module, const char* name) {
        EXPECT_STREQ(name, "GlobalMemoryStatusEx");
        return reinterpret_cast<void*>(GlobalMemoryStatusEx_plays);
    };
    system->machine_memory = [](os::MachineMemory& figures) {
        figures = played;
        return true;
    };
    // Up from one kibibyte too many on, but not from less.
    played = {64,
              33,
              8 * gib,
              4 * gib + kib,
              0,
              0,
              2 * gib + kib - 1,
              gib + kib,
              3 * mib + 512 * kib + 1};
    const mem_GetWindowsMemory memory;
    EXPECT_EQ(memory.GetTotalPhysMemoryMbytes(), 8192);
    EXPECT_EQ(memory.GetAvailPhysMemoryMbytes(), 4097);
    EXPECT_EQ(memory.GetTotalVirtMemoryMbytes(), 2048);
    EXPECT_EQ(memory.GetAvailVirtMemoryMbytes(), 1025);
    EXPECT_EQ(memory.GetAvailExtendedMemoryMbytes(), 3.5F);
    EXPECT_EQ(memory.GetMemoryLoad(), 33U);
    KXMBasMemInfo info;
    EXPECT_TRUE(info.Initialize());
    EXPECT_EQ(KXMBasMemInfo::Physical(), 8192U);
    EXPECT_EQ(info.Virtual(), 2048U);
    EXPECT_EQ(KXMBasMemInfo::Accessible(), 2048U);

    char buffer[1024];
    EXPECT_STREQ(mem_getPhysicalMemoryBase(buffer), "8192 MB");
    EXPECT_STREQ(mem_getVirtualMemoryBase(buffer), "2048 MB");
    played.total_physical += kib;
    EXPECT_EQ(mem_getPhysicalMemorySizeMB(), 8193U);
    system->machine_memory = [](os::MachineMemory&) { return false; };
    std::uint64_t untouched = 7;
    EXPECT_EQ(mem_getPhysicalMemoryInBytes(&untouched), -1);
    EXPECT_EQ(untouched, 7U);
    EXPECT_EQ(mem_getPhysicalMemorySizeMB() + mem_getVirtualMemorySizeMB(), 0U);
    std::strcpy(buffer, "before");
    EXPECT_STREQ(mem_getPhysicalMemoryBase(buffer), "");
    std::strcpy(buffer, "before");
    EXPECT_EQ(mem_getVirtualMemoryBase(buffer), buffer);
    EXPECT_STREQ(buffer, "");
}

int released = 0;
os::OlderMachineMemory older; // what GlobalMemoryStatus answers

// Everything that a failing start of the chain leaves in the list, as it is printed.
std::string reports(std::uint32_t last_error) {
    os::set_last_error(last_error);
    mem_Error errors = mem_GetWindowsMemory{mem_GetWindowsMemory::WithReports()}.GetErrors();
    testing::internal::CaptureStdout();
    errors.PrintErrors(3);
    EXPECT_FALSE(mem_GetWindowsMemory().GetErrors().GetErrors(3).pop().IsValid()) << "quiet";
    return testing::internal::GetCapturedStdout();
}

TEST(MachineFigures, FallBackToTheOlderFunctionStepByStep) {
    const std::string reason = static_cast<char*>(mem_GetWindowsErrorText(5));
    const std::string going_on =
        "Warning: Unsuccessful determining memory details using GlobalMemoryStatusEx().\n"
        "Warning: Going to try the older function GlobalMemoryStatus().\n";
    PlayedSystem system;
    system->older_machine_memory = [](os::OlderMachineMemory& figures) {
        EXPECT_EQ(figures.length, 56U);
        figures = older;
    };
    released = 0;
    system->module_release = [](os::Module) { ++released; };
    // Low 32 bits of the kibibytes, rounded down: 4 TiB and 5.9 MiB are 5.
    older = {56, 44, 2 * gib + mib - 1, gib + 1, 0, 0, (gib * 4096) + 6 * mib - kib, mib - 1};

    system->module_load = [](const char* name) {
        EXPECT_STREQ(name, "kernel32.dll");
        return os::Module();
    };
    EXPECT_EQ(reports(5), "Warning: Problems loading kernel32.dll - " + reason + "\n" + going_on);
    EXPECT_EQ(released, 0);
    system->module_load = [](const char*) { return os::Module(&older); };
    system->module_symbol = [](os::Module, const char*) -> void* { return nullptr; };
    EXPECT_EQ(reports(5), "Warning: Calling Windows API function GetProcAddress() - " + reason +
                              "\n" + going_on);
    system->module_symbol = [](os::Module module, const char*) {
        EXPECT_EQ(module, &older);
        return reinterpret_cast<void*>(+[](os::MachineMemory*) { return 0; });
    };
    const std::string newer_failed =
        "Warning: Calling Windows API function GlobalMemoryStatusEx() - ";
    EXPECT_EQ(reports(5), newer_failed + reason + "\n" + going_on);
    EXPECT_EQ(reports(0x1fffff01), newer_failed + "\n" + going_on) << "a code without a text";
    EXPECT_EQ(released, 6) << "by each reading";

    const mem_GetWindowsMemory memory;
    EXPECT_FALSE(memory.FoundError());
    EXPECT_EQ(memory.GetTotalPhysMemoryMbytes(), 2048);
    EXPECT_EQ(memory.GetAvailPhysMemoryMbytes(), 1024);
    EXPECT_EQ(memory.GetTotalVirtMemoryMbytes(), 5);
    EXPECT_EQ(memory.GetAvailVirtMemoryMbytes(), 0);
    EXPECT_EQ(memory.GetAvailExtendedMemoryMbytes(), 0);
    EXPECT_EQ(memory.GetMemoryLoad(), 44U);

    const os::OlderMachineMemory good = older;
    for (const auto spoil :
         {+[] { older.available_physical = ones; }, +[] { older.total_physical = ones; },
          +[] { older.available_virtual = ones; }, +[] { older.total_virtual = ones; },
          +[] { older.length = UINT32_MAX; }, +[] { older.load_percent = UINT32_MAX; }}) {
        older = good;
        spoil();
        EXPECT_TRUE(mem_GetWindowsMemory().FoundError());
        EXPECT_EQ(reports(5), newer_failed + reason + "\n" + going_on +
                                  "Error: Calling Windows API function GlobalMemoryStatus() - " +
                                  reason + "\n");
    }
    older = good;
    older.total_physical = ones;
    EXPECT_EQ(mem_GetWindowsMemory().GetTotalPhysMemoryMbytes(), 4194304) << "kept all the same";
    testing::internal::CaptureStdout();
    KXMBasMemInfo info;
    EXPECT_FALSE(info.Initialize());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(KXMBasMemInfo::Physical() + info.Virtual() + KXMBasMemInfo::Accessible(), 0U);
}

TEST(DriveFigures, AreTheDrives) {
    mem_GetWindowsDriveInfo drive(test::drive_root.c_str());
    EXPECT_EQ(drive.GetTotalSpaceMbytes(), test::drive_bytes(test::drive_root) / mib);
    expect_close(drive.GetAvailableSpaceMbytes(), test::drive_free_bytes(test::drive_root), 512);
    EXPECT_GE(drive.GetType(), 2U);
    if (os::properties().directory_separator == '/') {
        EXPECT_EQ(mem_GetWindowsDriveInfo("/proc").GetType(), 0U) << "no drive";
    }
    drive.GetType();
    testing::internal::CaptureStdout();
    drive.GetErrors().PrintErrors(3);
    const std::string query = "Debug: Querying drive " + test::drive_root + ".\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), query + query);

    mem_Stack<mem_GetWindowsDriveInfo> drives;
    drives.push(drive);
    mem_GetWindowsDriveInfo copy;
    copy = drives.pop();
    EXPECT_TRUE(copy.IsValid() && copy.GetName() == drive.GetName());
    EXPECT_TRUE(drive.GetErrors().GetErrors(3).pop() == copy.GetErrors().GetErrors(3).pop());
    EXPECT_FALSE(drives.pop().IsValid());
}

TEST(DriveFigures, AskOnceAndTellOfARefusal) {
    static int asked;
    asked = 0;
    mem_GetWindowsDriveInfo none, unknown(test::no_drive_root.c_str());
    EXPECT_EQ(none.GetType(), 0U);
    EXPECT_GT(none.GetTotalSpaceMbytes(), 0U) << "the working folder's";
    EXPECT_FALSE(none.IsValid() || none.GetErrors().GetErrors(3).pop().IsValid());

    PlayedSystem system;
    system->drive_space = [](const char* root, os::DriveSpace& space) {
        ++asked;
        return os::drive_space(root, space);
    };
    EXPECT_EQ(unknown.GetTotalSpaceMbytes() + unknown.GetAvailableSpaceMbytes(), 0U);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(unknown.GetType(), 1U);
    testing::internal::CaptureStdout();
    unknown.GetErrors().PrintErrors(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: Internal error querying the drive " + test::no_drive_root + "\n");
    // More than 32 bits on the way.
    system->drive_space = [](const char*, os::DriveSpace& space) {
        space = {64, 4096, 3, 0xffff'fff0};
        return true;
    };
    mem_GetWindowsDriveInfo large("large");
    EXPECT_EQ(large.GetAvailableSpaceMbytes(), 0U);
    EXPECT_EQ(large.GetTotalSpaceMbytes(), 0xffff'fff0 / 4);
}

std::uint64_t available = 0;
int reserved = 0, refused_from = 0;

TEST(RestrictMemory, ReservesInStepsUntilTheMarginOrARefusal) {
    PlayedSystem system;
    system->machine_memory = [](os::MachineMemory& figures) {
        figures.available_virtual = available;
        return available != 0;
    };
    system->vm_reserve = [](std::size_t size) -> void* {
        EXPECT_EQ(size, 100 * mib);
        return ++reserved < refused_from ? &reserved : nullptr;
    };
    const auto reservations = [](std::uint64_t available_mib, std::uint64_t keep_kib, int refused) {
        available = available_mib * mib;
        refused_from = refused;
        reserved = 0;
        mem_RestrictMemory(keep_kib);
        return reserved;
    };
    EXPECT_EQ(reservations(1000, 300 * kib, 1000), 5);
    EXPECT_EQ(reservations(1000, 301 * kib, 1000), 4);
    EXPECT_EQ(reservations(1000, 300 * kib, 3), 3);
    EXPECT_EQ(reservations(500, 300 * kib, 1000), 0);
    EXPECT_EQ(reservations(100, 300 * kib, 1000), 1000) << "less than is to be kept";
    EXPECT_EQ(reservations(0, 300 * kib, 1000), 1000) << "no figure";
}

test::ChildResult probe(std::vector<std::string> arguments) {
    return test::run_child({test::sibling_program("figures_probe"), std::move(arguments), {}});
}

TEST(MachineFigures, AreReadByTheFirstObjectThatSucceeds) {
    EXPECT_EQ(probe({"first"}).out, "none, none, some, some\n");
}

TEST(RestrictMemory, TakesAddressSpaceAndNoMemory) {
    EXPECT_EQ(probe({"restrict"}).out, "700 MB more reserved, none of it private\n");
}

TEST(RestrictMemory, HoldsUnderALimitOnTheAddressSpace) {
    if (os::properties().directory_separator != '/') {
        GTEST_SKIP() << "Windows has no such limit";
    }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a checker's own mappings exceed every limit";
#endif
    EXPECT_EQ(probe({"limited"}).out, "limit 2000 MB, left 700 to 800 MB\n"
                                      "600 MB allocated, 850 MB refused\n"
                                      "then nothing: 100 MB refused\n");
}

} // namespace
