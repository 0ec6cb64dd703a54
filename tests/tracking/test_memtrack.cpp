// The reader of tracking files: histories that only a replay of several threads meets, and files that
// are damaged, missing or another run's.
#include "child.h"
#include "history.h"
#include "tracking_files.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace {

using memtrack::Transaction;
using memtrack::Type;

Transaction event(Type type, std::uint64_t pointer, std::uint64_t size, int thread = 0,
                  std::uint64_t old_pointer = 0) {
    static int id = 0;
    return {pointer, old_pointer, type, id++, size, thread, 0};
}

std::uint64_t held_at(const memtrack::History& history, std::uint64_t address) {
    const auto found = history.held().find(address);
    return found == history.held().end() ? 0 : found->second.size;
}

TEST(Replay, FollowsAResizeThatIsRecordedLate) {
    memtrack::History history;
    history.add(event(Type::malloc_, 16, 100, 1));
    // Thread 1 has moved its block; thread 2 is given the address and is recorded first.
    history.add(event(Type::malloc_, 16, 7, 2));
    history.add(event(Type::realloc_, 64, 300, 1, 16));
    EXPECT_EQ(held_at(history, 16), 7U);
    EXPECT_EQ(held_at(history, 64), 300U);
    EXPECT_EQ(history.held_bytes(), 307U);
    EXPECT_EQ(history.lost_releases(), 0U);
}

TEST(Replay, CountsWhatTheRecordDoesNotKnow) {
    memtrack::History history;
    history.add(event(Type::malloc_, 16, 100));
    history.add(event(Type::free_, 32, memtrack::no_size));
    history.add(event(Type::calloc_, 16, 50)); // its release was not recorded
    history.add(event(Type::malloc_, 0, 1000));
    history.add(event(Type::realloc_, 0, 2000, 0, 16)); // refused: the block stays
    history.add(event(Type::realloc_, 0, 0, 0, 16));    // resized to nothing
    history.add(event(Type::realloc_, 48, 10, 0, 0));
    EXPECT_EQ(history.held_bytes(), 10U);
    EXPECT_EQ(history.refused(), 2U);
    EXPECT_EQ(history.unknown_releases(), 1U);
    EXPECT_EQ(history.lost_releases(), 1U);
    EXPECT_EQ(history.peak().bytes, 100U);
}

class Damaged : public testing::Test {
protected:
    static constexpr int full = 131072;

    std::string base_ = test::scratch_folder("damaged") + "run";

    // `count` is what the file claims, `records` what it holds, `more` bytes behind them.
    void write(int number, int count, int records, int first_id, std::size_t more = 0) const {
        std::string bytes;
        const auto word = [&bytes](std::uint64_t value, int size) {
            for (int i = 0; i < size; ++i) {
                bytes += static_cast<char>(value >> (8 * i));
            }
        };
        word(static_cast<std::uint32_t>(count), 4);
        for (int i = 0; i < records; ++i) {
            word(static_cast<std::uint64_t>(16 + 16 * (first_id + i)), 8);
            word(0, 8);
            word(0, 4);
            word(static_cast<std::uint32_t>(first_id + i), 4);
            word(1, 8);
            word(0, 8);
        }
        bytes.append(more, 'x');
        std::ofstream(base_ + ".memT" + std::to_string(number), std::ios::binary) << bytes;
    }

    // Reads with the program itself and expects these words on standard error.
    void expect(int events, const std::vector<std::string>& words) const {
        memtrack::Notes notes;
        memtrack::TransactionReader reader(base_, notes);
        int read = 0;
        for (Transaction next; reader.next(next);) {
            ++read;
        }
        EXPECT_EQ(read, events);
        const test::ChildResult run = test::run_child({MEMTRACK_PROGRAM, {base_ + ".memT0"}, {}});
        EXPECT_EQ(run.exit_code, 1);
        for (const std::string& word : words) {
            EXPECT_NE(run.err.find(word), std::string::npos) << word << "\nnot in: " << run.err;
        }
        EXPECT_NE(run.out.find(std::to_string(events) + " event"), std::string::npos) << run.out;
    }
};

TEST_F(Damaged, FilesAreReadAsFarAsTheyGo) {
    expect(0, {".memT0: cannot be opened", ".phaseStack: cannot be opened"});
    write(0, 5, 5, 0, 3);
    expect(5, {"longer than its count"});
    write(0, 5, 3, 0, 39);
    expect(3, {"holds 3 whole records of 5"});
    write(0, -7, 3, 0);
    expect(0, {"claims -7 records"});
    write(0, full + 1, 3, 0);
    expect(0, {"claims 131073 records"});
    std::ofstream(base_ + ".memT0", std::ios::binary) << "ab";
    expect(0, {"too short for its count"});
    write(0, full, full, 0);
    write(1, 2, 2, full + 4);
    expect(full + 2, {"transaction 131072 is missing, 131076 stands in its place"});
    write(1, 2, 2, full);
    write(2, full, full, 2 * full); // left by a longer run before
    write(10, 1, 1, 10 * full);
    expect(full + 2, {"2 more files named"});
    std::filesystem::remove(base_ + ".memT1");
    expect(full, {"2 more files named"});
    std::ofstream(base_ + ".phaseStack", std::ios::binary)
        << std::string("\1\0\0\0\0\0\0\0ROOT", 12);
    expect(full, {".phaseStack: holds 0 whole records of 1"});
    std::ofstream(base_ + ".phaseStack", std::ios::binary) << std::string("\xff\xff\xff\x7f", 4);
    expect(full, {".phaseStack: does not begin with a count"});
}

} // namespace
