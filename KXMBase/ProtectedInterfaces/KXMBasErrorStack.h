/* The notice board of failed allocations: what was asked for, where, how the footprint stood, and
   what the solver was doing. All storage is static, so that it works when memory has run out.

   While the board is active the library's allocator objects write on it; reading is the client's.
   Nothing takes a lock: threads that fail at the same time overwrite one another's texts. */
#ifndef KXMBasErrorStack_h
#define KXMBasErrorStack_h

#include "KXMBasMemExport.h"

#ifdef __cplusplus
#include <cstdint>

/// What the solver was doing when memory ran out.
class KXMBASMEM_API KXMBasErrorContext {
public:
    enum CategoryEnum : int {
        unknown,
        pre,
        elementLoop,
        ordering,
        assembly,
        solver,
        iterativeSolver,
        regularizationSolver,
        lanczosSolver,
        amsSolver,
        contact,
        initialStress,
        package,
        explicitDynamics,
        sensitivityAnalysis,
        linearDynamics,
        cfd,
    };

    KXMBasErrorContext() = default;

    void Category(CategoryEnum value) { category = value; }

    /// Text of the category held, or of the argument. Static storage, never released. The index is
    /// not checked: callers pass one of the values above.
    const char* AsString() const;
    static const char* AsString(CategoryEnum value);

private:
    CategoryEnum category = unknown;
};

extern "C" {
#endif

/** Activate and its opposite, for callers in other languages. */
KXMBASMEM_API void KXMBasErrorStackReactivate(void);
KXMBASMEM_API void KXMBasErrorStackDeactivate(void);

/** Sets the category from its number, 0 to 16, for callers in other languages. Not checked. */
KXMBASMEM_API void KXMBasErrorCategory(int category);

#ifdef __cplusplus
}

/// All static. Texts given are copied; texts returned are static storage, never released.
class KXMBASMEM_API KXMBasErrorStack {
public:
    static void Activate(); ///< from now on the allocator objects report here
    static void Deactivate();
    static bool Active(); ///< false at start

    /// Keeps the text of a call stack, and with it one reading of the footprint, in MiB: the process's
    /// private memory, mem_FootprintFromResources, not the heap's. It replaces the
    /// text before, whose length narrows the room for it: after a text of 3000 characters the next
    /// is cut after 1000, with the tail of the older one behind it.
    static void Push(const char* text);
    static const char* CStr(); ///< the latest call stack; empty when there is none
    /// Length of the text that Push was last given; -1 when it was cut.
    static int Length();

    /// Keeps a message likewise, without a reading of the footprint.
    static void PushMessage(const char* text);
    static const char* ErrorMessages(); ///< the latest message; empty when there is none

    /// The history of the footprint, in mebibytes where Push writes it: 4000 values, the last of
    /// which is overwritten when it is full.
    static void PushMem(std::uint64_t value);
    /// The latest value, 0 when there is none. From the 4000th on the 3999th: deliberately.
    static std::uint64_t GetMem();

    // Kept for the client. Names and paths are cut to 199 characters.
    static void SetMemoryLimit(std::uint64_t limit);
    static std::uint64_t GetMemoryLimit();
    static void SetJobname(const char* text);
    static const char* Jobname();
    static void SetIndir(const char* text); ///< input directory
    static const char* Indir();
    static void SetOutdir(const char* text); ///< output directory
    static const char* Outdir();
    static void SetTmpdir(const char* text); ///< scratch directory
    static const char* Tmpdir();
    static void SetExePath(const char* text);
    static const char* ExePath();
    static void SetFatalException(bool value);
    static bool FatalException();

    /// The working directory; what an earlier call found when it cannot be had or has more than 199
    /// characters.
    static const char* Cwd();

    /// Prints "## " and the text on standard output, without flushing it.
    static void SaveMarker(const char* text);

    static void Context(KXMBasErrorContext::CategoryEnum category);
    static const char* ContextAsString();

private:
    enum { text_capacity = 4000, mem_capacity = 4000, name_capacity = 200 };

    static bool s_active;
    static bool s_fatalException;
    static char s_ErrorStack[text_capacity + 1];
    static char s_ErrorMessages[text_capacity + 1];
    static std::int32_t s_curr;           // result of the last print of Push
    static std::int32_t s_currentMessage; // and of PushMessage
    static std::int32_t s_memIndex;       // next slot in s_mem
    static std::uint64_t s_mem[mem_capacity];
    static std::uint64_t s_memLimit;
    static char s_indir[name_capacity];
    static char s_outdir[name_capacity];
    static char s_tmpdir[name_capacity];
    static char s_curdir[name_capacity];
    static char s_exepath[name_capacity];
    static char s_jobname[name_capacity];
    static KXMBasErrorContext s_context;
};
#endif

#endif
