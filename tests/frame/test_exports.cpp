// Plain names are plain: the loader of either system finds every one of them in the library.
#include "child.h"

#include "KXMBasMem.h"

#include <gtest/gtest.h>

namespace {

constexpr const char* plain_names[] = {"KXMBasAlloc_initializeC",
                                       "KXMBasAlloc_finalizeC",
                                       "KXMBasMem_formalize",
                                       "KESTRIX_WORKS_KCA2_INTERNAL_KXMBasAlloc",
                                       "KXA_PARALLEL_DEBUG",
                                       "MC_RESULT",
                                       "m_registEnv",
                                       "mem_malloc",
                                       "mem_calloc",
                                       "mem_realloc",
                                       "mem_free",
                                       "mem_trim",
                                       "mem_mallopt",
                                       "mem_footprint",
                                       "mem_maxfootprint",
                                       "mem_memorylimit",
                                       "mem_errormemorylimit",
                                       "mem_fragmentationinfo",
                                       "mem_dlmallinfo",
                                       "mem_Malloc",
                                       "mem_Malloc_Handled",
                                       "mem_Free",
                                       "mem_Realloc",
                                       "mem_Calloc",
                                       "mem_Malign",
                                       "mem_MalignFree",
                                       "mem_Release",
                                       "mem_Acquire",
                                       "mem_Trim",
                                       "mem_Mallopt",
                                       "mem_Footprint",
                                       "mem_MaxFootprint",
                                       "mem_MemoryLimit",
                                       "mem_FragmentationInfo",
                                       "mem_ErrorMemoryLimit",
                                       "mem_usingDL",
                                       "mem_TBAllocator",
                                       "mem_TBThreadLock",
                                       "newDeleteTinyBlock",
                                       "mem_smallalloc",
                                       "mem_smallfree",
                                       "mem_FootprintFromResources",
                                       "mem_MaxFootprintFromResources",
                                       "mem_ReleaseMemoryLock",
                                       "mem_DLMallinfo",
                                       "mem_nofragmentationinfo",
                                       "mem_malign",
                                       "mem_realign",
                                       "mem_free_aligned",
                                       "mem_TrackerC_CurrTransactionId",
                                       "mem_TrackerC_EnterPhase",
                                       "mem_TrackerC_ExitPhase",
                                       "mem_tracker_enterphase",
                                       "mem_tracker_exitphase",
                                       "mem_tracker_printtransaction",
                                       "MemoryCheckerActivate",
                                       "MemoryCheckerDeactivate",
                                       "MemoryCheckerCurrentTransaction",
                                       "KXMBasMemCheckerActivate",
                                       "KXMBasMemCheckerDeactivate",
                                       "KXMBasMemCheckerCurrentTrans",
                                       "mem_alignedAlloc",
                                       "dlmalloc",
                                       "dlcalloc",
                                       "dlmemalign",
                                       "dlrealloc",
                                       "dlfree",
                                       "dlmalloc_usable_size",
                                       "dlmalloc_trim",
                                       "dlmallopt",
                                       "dlmalloc_footprint",
                                       "dlmalloc_max_footprint",
                                       "dlmalloc_memory_limit",
                                       "error_memory_limit",
                                       "dlfragmentationinfo",
                                       "dlmallinfo",
                                       "dlmalloc_ReleaseLock",
                                       "KXMBasErrorCategory",
                                       "KXMBasErrorStackReactivate",
                                       "KXMBasErrorStackDeactivate",
                                       "KXMBasMemClearStack",
                                       "mem_scanmemory_ifc",
                                       "memcheck_debug_printf",
                                       "KXMBasMemoryCheckVarDP",
                                       "KXMBasMemoryCheckVarSP",
                                       "KXMBasMemoryCheckVarINT",
                                       "KXMBasMemoryCheckVarINT64",
                                       "KXMBasMemoryCheckArrayI",
                                       "KXMBasMemoryCheckArrayP",
                                       "KXMBasMemoryCheckArrayR",
                                       "KXMBasMemoryCheckArrayD",
                                       "KXMBasMemorySink",
                                       "KXMBasWriteMsg",
                                       "mem_deliberateAbort",
                                       "mem_stack_overwrite_frame",
                                       "mem_stack_fill",
                                       "mem_mismatch_par",
                                       "mem_fp_division"};

TEST(Exports, ArePlainForTheLoader) {
    mem_Free(mem_Malloc(1)); // keeps the library loaded
    for (const char* const name : plain_names) {
        EXPECT_NE(test::find_symbol("KXMBasMem", name), nullptr) << name;
    }
    EXPECT_EQ(test::find_symbol("KXMBasMem", "mem_NoSuchEntry"), nullptr);
    const auto marker = reinterpret_cast<int (*)()>(
        test::find_symbol("KXMBasMem", "KESTRIX_WORKS_KCA2_INTERNAL_KXMBasAlloc"));
    ASSERT_NE(marker, nullptr);
    EXPECT_EQ(marker(), 1);
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
