// The named phases of the thread that loaded the library.
#include "KXMBasPhaseTracker.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace {

using Tracker = KXMBasPhaseTracker;

class PhaseMarkers : public testing::Test {
protected:
    PhaseMarkers() { Tracker::Rewind(); }
};

TEST_F(PhaseMarkers, OpenAndCloseByTheirEnding) {
    Tracker::SaveMarker("Step 1 Start");
    EXPECT_EQ(Tracker::Size(), 1);
    EXPECT_STREQ(Tracker::LastMarker(), "Step 1");
    Tracker::SaveMarker("Sacred Heart"); // any "art"
    EXPECT_STREQ(Tracker::LastMarker(), "Sacred");
    for (char const* const other : {"", "t", "rt", "Start ", "END", "Step 1 Starting", "Ending"}) {
        Tracker::SaveMarker(other);
    }
    std::thread([] {
        Tracker::SaveMarker("Elsewhere Start");
        Tracker::SaveMarker("Step 1 End");
    }).join();
    EXPECT_EQ(Tracker::Size(), 2);
    Tracker::SaveMarker("of another name End"); // closes whatever is on top
    EXPECT_STREQ(Tracker::LastMarker(), "Step 1");
    Tracker::SaveMarker("Step 1 End");
    EXPECT_EQ(Tracker::Size(), 0);
    EXPECT_STREQ(Tracker::LastMarker(), "") << "nobody is in the phase that was closed";
    EXPECT_STREQ(Tracker::Iterator().Value(0), "Step 1") << "but its text stays";
    for (char const* const unpaired : {"Step 1 End", "End"}) {
        Tracker::SaveMarker(unpaired);
        EXPECT_EQ(Tracker::Size(), 0);
    }
    Tracker::SaveMarker("art"); // shorter than what is cut off: no name
    EXPECT_EQ(Tracker::Size(), 1);
    EXPECT_STREQ(Tracker::LastMarker(), "");
}

TEST_F(PhaseMarkers, LongerThanFortyAreIgnoredOnBothEnds) {
    Tracker::SaveMarker("outer Start");
    const std::string name(34, 'n');
    Tracker::SaveMarker((name + " Start").c_str());
    EXPECT_EQ(Tracker::LastMarker(), name);
    for (const std::size_t longer : {41U, 42U, 5000U}) {
        Tracker::SaveMarker((std::string(longer - 6, 'l') + " Start").c_str());
        Tracker::SaveMarker((std::string(longer - 4, 'l') + " End").c_str());
        EXPECT_EQ(Tracker::Size(), 2) << longer;
        EXPECT_EQ(Tracker::LastMarker(), name);
    }
    // Of this pair only the end fits, and closes a phase too many.
    Tracker::SaveMarker((std::string(36, 'p') + " Start").c_str());
    Tracker::SaveMarker((std::string(36, 'p') + " End").c_str());
    EXPECT_STREQ(Tracker::LastMarker(), "outer");
    Tracker::Push("in", 40); // shorter than it is said to be
    EXPECT_STREQ(Tracker::LastMarker(), "in");
    Tracker::Pop(40);
    Tracker::Pop(41);
    Tracker::Push("given its length", 41);
    EXPECT_EQ(Tracker::Size(), 1);
}

TEST_F(PhaseMarkers, TheTwentiethEmptiesTheStack) {
    for (int round = 0; round < 2; ++round) {
        for (int i = 1; i <= 19; ++i) {
            const std::string name = "phase " + std::to_string(i);
            Tracker::Push((name + " Start").c_str(), static_cast<int>(name.size()) + 6);
            EXPECT_EQ(Tracker::Size(), i);
            EXPECT_EQ(Tracker::LastMarker(), name);
        }
        Tracker::SaveMarker("one too many Start");
        EXPECT_EQ(Tracker::Size(), 0);
        EXPECT_STREQ(Tracker::LastMarker(), "");
        EXPECT_STREQ(Tracker::Iterator().Value(0), "");
        Tracker::SaveMarker("one too many End");
        EXPECT_EQ(Tracker::Size(), 0);
    }
    Tracker::SaveMarker("increment Start");
    Tracker::Shift();
    EXPECT_EQ(Tracker::Size(), 1);
    Tracker::IncrementStart(12);
    EXPECT_EQ(Tracker::Size(), 0);
}

TEST_F(PhaseMarkers, AreReadByPosition) {
    Tracker one;
    const Tracker same(one); // objects hold nothing
    one = same;
    one = Tracker();
    Tracker::Iterator phase;
    EXPECT_TRUE(phase.Done() && phase.Last());
    for (char const* const marker : {"one Start", "two Start", "three Start"}) {
        Tracker::SaveMarker(marker);
    }
    EXPECT_FALSE(phase.Done() || phase.Last()) << "it reads the stack anew";
    std::string all;
    for (; !phase.Done(); phase++) {
        all += std::string(*phase) + (phase.Last() ? "." : ",");
    }
    EXPECT_EQ(all, "one,two,three.");
    phase.Position(-1);
    EXPECT_TRUE(phase.Last());
    EXPECT_STREQ(phase.Value(), "three");
    phase.Position(-5);
    EXPECT_EQ(phase.Current(), 0);
    EXPECT_STREQ(*phase++, "two") << "the step comes first";
    EXPECT_EQ((++phase).Current(), 2);
    phase.Next();
    EXPECT_TRUE(phase.Done() && !phase.Last());
    EXPECT_EQ(phase.Size(), 3);
    EXPECT_STREQ(phase.Value(1), "two");
    phase.Position(7);
    EXPECT_EQ(phase.Current(), 7);
}

} // namespace
