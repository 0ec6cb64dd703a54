// Entries that the loader of either system finds by plain names (all of them stand in the lists of KXMBase/exports), and
// those that do nothing.
#include "child.h"

#include "KXMBasMem.h"

#include <gtest/gtest.h>

namespace {

TEST(Exports, ArePlainForTheLoader) {
    mem_Free(mem_Malloc(1)); // keeps the library loaded
    const auto marker = reinterpret_cast<int (*)()>(
        test::find_symbol("KXMBasMem", "KESTRIX_WORKS_KCA2_INTERNAL_KXMBasAlloc"));
    ASSERT_NE(marker, nullptr);
    EXPECT_EQ(marker(), 1);
    EXPECT_EQ(test::find_symbol("KXMBasMem", "mem_NoSuchEntry"), nullptr);
}

// The linker finds what other components name, though nothing here installs it.
TEST(Exports, PlaceHoldersDoNothing) {
    KXMBasMemStackWalker walker;
    walker.Backtrace();
    EXPECT_EQ(walker.CurrentCallStack("", "", 1), nullptr);
    char name[] = "_Z1fv";
    KXMBasMemDebug::Demangle(name, sizeof name);
    EXPECT_STREQ(name, "_Z1fv");
    EXPECT_EQ(
        DUMMY_STACKWALK(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
        0);
    EXPECT_EQ(DUMMY_SYMGETOPTIONS() + DUMMY_SYMSETOPTIONS(16) + DUMMY_GETTHREADID(nullptr), 0U);
    EXPECT_EQ(DUMMY_SYMINITIALIZE(nullptr, nullptr, 1) + DUMMY_SYMCLEANUP(nullptr), 0);
    EXPECT_EQ(DUMMY_SYMFUNCTIONTABLEACCESS(nullptr, 1), nullptr);
    EXPECT_EQ(DUMMY_SYMGETMODULEBASE(nullptr, 1) +
                  DUMMY_GETMODULEBASENAME(nullptr, nullptr, nullptr, 0),
              0U);
    EXPECT_EQ(DUMMY_SYMGETSYMFROMADDR(nullptr, 1, nullptr, nullptr), 0);
    EXPECT_EQ(DUMMY_SYMGETLINEFROMADDR(nullptr, 1, nullptr, nullptr), 0);
}

TEST(Exports, StartAndStopHooksLeaveTheirArgument) {
    int status = 7;
    KX0CORE_initialize(status);
    KX0CORE_finalize(status);
    KXMBasMem_formalize();
    KXMBasAlloc_initializeC(); // a pair inside the one that loading opened
    KXMBasAlloc_finalizeC();
    EXPECT_EQ(status, 7);
}

} // namespace
