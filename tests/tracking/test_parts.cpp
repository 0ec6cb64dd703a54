// The tracker's parts by themselves: tables, phases, lock and names. A failed invariant is recorded and
// returns.
#include "KXMBasMem.h"
#include "child.h"
#include "kxm_utf8_names.h"
#include "platform/os.h"
#include "recording_KX0CORE.h"
#include "tracking/test_seam.h"
#include "tracking_files.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <thread>
#include <unordered_map>

namespace {

constexpr int absent = 0x7FFFFFFF;

class TrackerParts : public testing::Test {
protected:
    void SetUp() override {
        int status = 0;
        KXMBasMem_initialize(status); // binds the table where loading has not
        kxm::register_utf8_names();
    }
};
using PointerTable = TrackerParts;
using PathTable = TrackerParts;
using Phases = TrackerParts;
using Names = TrackerParts;

std::string summary(mem_PtrHash& table) {
    const std::string name = test::scratch_folder("summary") + "text";
    std::FILE* const file = std::fopen(name.c_str(), "w+b");
    table.MemorySummary(file);
    std::rewind(file);
    char text[1000] = {};
    EXPECT_GT(std::fread(text, 1, sizeof text - 1, file), 0U);
    std::fclose(file);
    return text;
}

TEST_F(PointerTable, HoldsWhatAModelHolds) {
    mem_PtrHash table(0);
    std::unordered_map<long long, int> model;
    std::mt19937_64 random(7);
    for (int i = 0; i < 400000; ++i) {
        // Some keys far apart, and many that come back.
        const auto key = static_cast<long long>((random() % 30000) << (random() % 2 * 10)) * 16;
        if (random() % 3 != 0) {
            table.Add(key, i);
            model[key] = i;
        } else {
            table.Delete(key);
            model.erase(key);
        }
        if (i % 20000 == 0) {
            for (const auto& [k, value] : model) {
                ASSERT_EQ(table.LookUp(k), value);
            }
        }
        const auto found = model.find(key);
        ASSERT_EQ(table.LookUp(key), found == model.end() ? absent : found->second);
    }
    int count = 0;
    int* const values = table.CheckForLeaks(count);
    EXPECT_EQ(static_cast<std::size_t>(count), model.size());
    mem_free(values);
}

TEST_F(PointerTable, GrowsByItsListOfSizes) {
    mem_PtrHash empty(0);
    EXPECT_EQ(empty.LookUp(16), absent);
    empty.Delete(16);
    int count = -1;
    EXPECT_EQ(empty.CheckForLeaks(count), nullptr);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(empty.HitRate(), 0.0F);
    empty.Add(16, 1);
    EXPECT_EQ(empty.MemoryUse(), 15683 * 16U);
    EXPECT_EQ(summary(empty).find("\nHASHING INFORMATION\n   HASH TABLE WAS RESIZED\n   Hit Rate = "
                                  "1.000000\n   m_table  = "),
              0U);
    EXPECT_NE(summary(empty).find("\n   Memory Used for Hash Table = 250928\n"), std::string::npos);
    empty.Delete(16);
    EXPECT_EQ(empty.CheckForLeaks(count), nullptr) << "deleted slots are no entries";
    mem_PtrHash table(100);
    EXPECT_EQ(table.MemoryUse(), 15683 * 16U);
    EXPECT_NE(summary(table).find("   Hash Table was not Resized\n"), std::string::npos);
    EXPECT_EQ(mem_PtrHash(32760).MemoryUse(), 65521 * 16U);
    EXPECT_EQ(mem_PtrHash(35000).MemoryUse(), 262139 * 16U)
        << "13107 and 131 thousand are passed over";

    // Deleted slots are used again.
    for (int i = 0; i < 20000; ++i) {
        table.Add(16, 1);
        table.Delete(16);
    }
    EXPECT_NE(summary(table).find("   Hash Table was not Resized\n"), std::string::npos);
    // A table full of them is made anew in the same size.
    for (long long key = 1; key <= 200000; ++key) {
        table.Add(key * 8, 1);
        table.Delete(key * 8);
    }
    EXPECT_EQ(table.MemoryUse(), 15683 * 16U);
    EXPECT_NE(summary(table).find("   HASH TABLE WAS RESIZED\n"), std::string::npos);

    mem_PtrHash large(0), replaced(0);
    for (int i = 0; i < 350000; ++i) {
        large.Add(i * 16, i);
    }
    EXPECT_EQ(large.MemoryUse(), 1048573 * 16U);
    for (int i = 0; i < 30457; ++i) { // 10457 keys, most of them three times
        replaced.Add((i < 30000 ? i % 10000 : i) * 16, i);
    }
    EXPECT_EQ(replaced.MemoryUse(), 65521 * 16U) << "a value that is replaced counts again";
}

TEST_F(PointerTable, TellsOfAStartValueThatIsTooHigh) {
    mem_PtrHash table(1);
    const int before = recorded_fatal_errors();
    table.Add(0x1FFFFFFFD, 1); // the highest that is allowed
    EXPECT_EQ(recorded_fatal_errors(), before);
    table.Add(0x1FFFFFFFE, 2);
    EXPECT_EQ(recorded_fatal_errors(), before + 1);
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:sum <= 4294967293");
    EXPECT_EQ(table.LookUp(0x1FFFFFFFD), 1);
}

TEST_F(PathTable, TakesItsStateWordsAsPaths) {
    const auto table = std::make_unique<mem_StackHash>();
    EXPECT_EQ(table->LookUp("EMPTY"), absent);
    table->Add("EMPTY", 1);
    table->Add("DELETED", 2);
    table->Add("gr\xc3\xb6\xc3\x9f"
               "e",
               3); // characters count as signed
    EXPECT_EQ(table->LookUp("EMPTY"), 1);
    EXPECT_EQ(table->LookUp("DELETED"), 2);
    EXPECT_EQ(table->LookUp("gr\xc3\xb6\xc3\x9f"
                            "e"),
              3);
    EXPECT_EQ(table->LookUp("unknown"), absent);
    EXPECT_GT(table->HitRate(), 0.0F);
    const std::string longer(100000, 'x'); // several steps of the pool at once
    table->Add(longer.c_str(), 4);
    EXPECT_EQ(table->LookUp(longer.c_str()), 4);
    EXPECT_EQ(table->LookUp("DELETED"), 2);

    const auto told = [](mem_StackHash& paths, std::size_t length) {
        testing::internal::CaptureStderr();
        paths.Add(std::string(length, 'y').c_str(), 5);
        return testing::internal::GetCapturedStderr();
    };
    const auto fitting = std::make_unique<mem_StackHash>(),
               larger = std::make_unique<mem_StackHash>();
    EXPECT_EQ(told(*fitting, 32767), "");
    fitting->Add("twice", 1); // the later one counts
    fitting->Add("twice", 2);
    EXPECT_EQ(fitting->LookUp("twice"), 2);
    EXPECT_EQ(told(*larger, 32768).find("\n\nWARNING: Memory tracking. Forced"), 0U);

    const std::string base = test::scratch_folder("paths") + "gr\xc3\xb6\xc3\x9f"
                                                             "e";
    const auto written = std::make_unique<mem_StackHash>();
    const std::string path = "ROOT->" + longer; // as the reader wants them
    written->Add("ROOT", 0);
    written->Add(path.c_str(), 4);
    written->WriteToDisk(base.c_str());
    memtrack::Problems problems;
    const auto name =
        std::filesystem::path(std::u8string(base.begin(), base.end()) + u8".phaseStack");
    ASSERT_TRUE(std::filesystem::exists(name)) << "not by its UTF-8 name";
    std::filesystem::rename(name, test::scratch_folder("paths2") + "plain.phaseStack");
    const memtrack::PhaseTable read(
        (std::filesystem::path(test::program_folder()) / "scratch" / "paths2" / "plain").string(),
        problems);
    EXPECT_TRUE(problems.empty());
    EXPECT_EQ(read.size(), 2U);
    EXPECT_EQ(read.path(4), path);
    written->WriteToDisk("no such folder/x"); // silently missing
}

TEST_F(Phases, NestInAReadablePath) {
    const auto stack = std::make_unique<mem_PhaseStack>();
    EXPECT_STREQ(stack->CurrentStack(), "ROOT");
    stack->EnterPhase("a");
    stack->EnterPhase("b");
    EXPECT_STREQ(stack->CurrentStack(), "ROOT->a->b");
    stack->ExitPhase();
    EXPECT_STREQ(stack->CurrentStack(), "ROOT->a");
    stack->ExitPhase();
    stack->ExitPhase(); // one too many
    EXPECT_STREQ(stack->CurrentStack(), "ROOT");
    stack->EnterPhase("lost");
    stack->EnterPhase("c");
    EXPECT_STREQ(stack->CurrentStack(), "ROOT->lost->c");
    stack->EnterPhase("d");
    stack->ExitPhase();
    EXPECT_STREQ(stack->CurrentStack(), "ROOT->c") << "the one that made up for it is missing";

    const auto deep = std::make_unique<mem_PhaseStack>();
    const std::string longest(127, 'n');
    for (int i = 0; i < 1100; ++i) { // beyond both limits
        deep->EnterPhase(longest.c_str());
    }
    EXPECT_EQ(std::strlen(deep->CurrentStack()), 131071U);
    for (int i = 0; i < 1098; ++i) {
        deep->ExitPhase();
    }
    EXPECT_EQ(std::string(deep->CurrentStack()), "ROOT->" + longest + "->" + longest);
}

TEST_F(Phases, AreWrittenInFiftiesForOneThread) {
    const std::string base = test::scratch_folder("phase_files") + "run";
    const auto exists = [&base](int number) {
        return std::filesystem::exists(base + ".phase_thr4_" + std::to_string(number));
    };
    const std::string longest(119, 'n');
    const auto next_file = [&base] {
        const os::File file = os::file_create((base + "next").c_str());
        os::file_close(file);
        return file;
    };
    const os::File next = next_file();
    const int before = recorded_fatal_errors();
    {
        mem_PhaseBuffer buffer;
        buffer.SetOutputName(base.c_str());
        buffer.EnterPhase(longest.c_str(), 4, 0);
        for (int i = 1; i < 50; ++i) {
            EXPECT_EQ(i % 2 != 0 ? buffer.EnterPhase("inner", 4, i) : buffer.ExitPhase(4, i), 0);
        }
        EXPECT_FALSE(exists(0));
        buffer.ExitPhase(4, 50);
        EXPECT_EQ(std::filesystem::file_size(base + ".phase_thr4_0"), 4 + 50 * 128U);
        buffer.ExitPhase(4, 51);
    }
    EXPECT_EQ(recorded_fatal_errors(), before);
    EXPECT_EQ(next_file(), next) << "a file is left open";
    std::vector<std::string> read;
    memtrack::Problems problems;
    EXPECT_TRUE(
        memtrack::read_phase_events(base, 4, problems, [&](const memtrack::PhaseEvent& event) {
            EXPECT_EQ(static_cast<std::size_t>(event.transaction), read.size());
            read.push_back(event.entering ? event.name : "exit");
        }));
    ASSERT_EQ(read.size(), 52U);
    EXPECT_EQ(read[0], longest);
    EXPECT_EQ(read[49], "inner");
    EXPECT_EQ(read[51], "exit");
    EXPECT_TRUE(problems.empty());
    EXPECT_FALSE(exists(2));
}

TEST_F(Phases, TellWhatABufferRefuses) {
    const std::string base = test::scratch_folder("refused_phases") + "run";
    int before = recorded_fatal_errors();
    const auto refused = [&before](const std::string& text) {
        EXPECT_EQ(recorded_fatal_errors(), ++before);
        EXPECT_EQ(recorded_fatal_text(), "AssertionFailed:" + text);
    };
    mem_PhaseBuffer buffer;
    buffer.SetOutputName(std::string(1004, 'x').c_str());
    EXPECT_EQ(recorded_fatal_errors(), before);
    buffer.SetOutputName(std::string(1005, 'x').c_str());
    refused("strlen(outputName) < (PHASE_FILENAMESIZE - MAX_BUFF_ID_DIGITS - PhaseExtensionSize)");
    buffer.SetOutputName("no such folder/run");
    buffer.EnterPhase(std::string(120, 'n').c_str(), 1, 0);
    refused("strlen(phaseName) < MEM_TRACKER_PHASE_MAXSTRLEN");
    buffer.ExitPhase(2, 1);
    refused("m_threadId == threadId");
    for (int i = 2; i < 50; ++i) {
        buffer.ExitPhase(1, i);
    }
    buffer.ExitPhase(1, 50);
    refused("outFd > -1");
    EXPECT_EQ(buffer.EnterPhase("full", 1, 50), 0);
    refused("outFd > -1");
    struct Speechless final : KXMToOsBase {
        unsigned short const* ToUTF16(char const*, unsigned short*, int) override {
            return nullptr;
        }
        char const* ToLocale(char const*, char*, int) override { return nullptr; }
    } speechless;
    mem_ToOs::Register(&speechless);
    buffer.SetOutputName(base.c_str());
    buffer.ExitPhase(1, 50);
    refused("outFd > -1");
    kxm::register_utf8_names();
    const std::pair<std::int64_t, const char*> disks[] = {
        {3, "numBytesWritten == sizeof(int)"},
        {4 + 50 * 128 - 1, "numBytesWritten == m_currEntry * sizeof(mem_PhaseDescription)"}};
    for (const auto& [room, text] : disks) {
        tracking::test_seam::room = room;
        buffer.ExitPhase(1, 50);
        refused(text);
    }
    tracking::test_seam::room = INT64_MAX;
    buffer.ExitPhase(1, 50); // what was kept is written now, under the same name
    EXPECT_EQ(std::filesystem::file_size(base + ".phase_thr1_0"), 4 + 50 * 128U);
}

TEST(ThreadLock, RemembersWhetherItIsHeld) {
    mem_ThrLock lock(mem_ThrLocked);
    EXPECT_EQ(lock.TryLock(), 0) << "the owner too";
    const auto elsewhere = [&lock] {
        int result = -1;
        std::thread([&] {
            result = lock.TryLock();
            if (result == 1) {
                lock.Unlock();
            }
        }).join();
        return result;
    };
    EXPECT_EQ(elsewhere(), 0);
    lock.Lock(); // recursive, but the flag is no count
    lock.Unlock();
    EXPECT_EQ(elsewhere(), 0) << "the flag says free, the system does not";
    EXPECT_EQ(lock.TryLock(), 1);
    lock.Unlock();
    lock.Unlock();
    EXPECT_EQ(elsewhere(), 1);
    lock.Lock();
    EXPECT_EQ(lock.TryLock(), 0);
    lock.Unlock();
    mem_ThrLock* const own = new mem_ThrLock(mem_ThrUnlocked);
    EXPECT_EQ(own->TryLock(), 1);
    own->Unlock();
    delete own;
}

TEST_F(Names, GoThroughTheRegisteredConverter) {
    unsigned short wide[8];
    const auto converted = [&wide](const char* text, int capacity) {
        const unsigned short* const result = mem_ToOs::ToUTF16(text, wide, capacity);
        return std::u16string(reinterpret_cast<const char16_t*>(result));
    };
    EXPECT_EQ(converted("a\xc3\xb6\xe4\xb8\xad\xf0\x9f\x98\x80", 8), u"a\u00f6\u4e2d\U0001f600");
    EXPECT_EQ(converted("1234567", 8), u"1234567");
    EXPECT_EQ(converted("12345678", 8), u"") << "cut short would be another file's name";
    EXPECT_EQ(converted("12345\xf0\x9f\x98\x80", 7), u"");
    EXPECT_EQ(converted("\xff", 8), std::u16string(1, char16_t(0xdcff)));
    EXPECT_EQ(converted("\xed\xa0\x80", 8).size(), 3U)
        << "no surrogates, and nothing read past the end";
    EXPECT_EQ(converted("\xf0\x9f", 8).size(), 2U);
    char narrow[4];
    EXPECT_STREQ(mem_ToOs::ToLocale("abc", narrow, 4), "abc");
    EXPECT_STREQ(mem_ToOs::ToLocale("abcd", narrow, 4), "");

    struct Own final : KXMToOsBase {
        unsigned short const* ToUTF16(char const*, unsigned short*, int) override {
            return nullptr;
        }
        char const* ToLocale(char const*, char*, int) override { return "own"; }
    } own;
    mem_ToOs::Register(&own);
    EXPECT_STREQ(mem_ToOs::ToLocale("abc", narrow, 4), "own");
    EXPECT_EQ(mem_ToOs::ToUTF16("abc", wide, 8), nullptr);
    kxm::register_utf8_names();
}

} // namespace
