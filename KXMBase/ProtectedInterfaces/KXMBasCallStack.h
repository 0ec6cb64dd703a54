// The current call stack as one plain text, for failure reports and for allocators that remember
// who took a block. A finished text has a line a frame, numbered from 1 with no gaps: the number, the
// module padded to 26 characters, the symbol padded to 40, and the short file name with the line
// number in parentheses when they are known. Frames below "main" and below a thread's start are not
// shown; nor are those two.
//
// A capture allocates 2000 bytes for the text from the C runtime and keeps nothing else of it, and
// works when the library's heap has failed or its lock is held. A fault inside it gives a null text. Any thread may
// capture; the debug help of Windows serves one at a time, so there the others wait, for two seconds at
// the most.
#ifndef KXMBasCallStack_h
#define KXMBasCallStack_h

#include <cstdint>
#include <cstdio>

#include "KXMBasMemExport.h"
#include "KXMBasMemFixedPoolAllocator.h"

struct HINSTANCE__;
typedef HINSTANCE__* HINSTANCE; // as the system's headers have it

/// KXA_CALLSTACK_DEPTH through atoi, or 20 when it is not set. The library asks once, at load;
/// later changes of the environment have no effect on it.
KXMBASMEM_API int GetCallStackDepth();

class KXMBASMEM_API KXMBasCallStack {
public:
    class Entry;

    /// Captures the calling thread; the first line is the function that constructs the object.
    /// `depth` is the most lines wanted and counts only where KXA_CALLSTACK_DEPTH is set to 0; else
    /// that limit holds. The second argument is ignored.
    KXMBasCallStack(int depth, void const* unusedContext);

    /// Wraps a text that exists already, or null. Captures nothing.
    KXMBasCallStack(char* existingText, int unused);

    /// Leaves the text alone: it belongs to whoever takes it from CStr().
    ~KXMBasCallStack();

    /// The text, or null when there is none: ask Available() first. From the C runtime's calloc; give
    /// it back through DeleteCStr, or keep it for good.
    char* CStr() const { return text; }
    void DeleteCStr(char* text) const;

    char const* GetEntry(int unused) const; ///< the whole text, for every index

    bool Available() const { return depth != 0 && text != nullptr; }

    static int GetDepthSetting(); ///< the frame limit that the environment gave at load

    /// Capture for an exception filter (Windows; `exceptionPointers` is its EXCEPTION_POINTERS*) or a
    /// signal handler (Linux; the third argument of an SA_SIGINFO handler, a ucontext_t*). The first
    /// line is the caller of the function that failed. With null, captures the calling thread, from
    /// the caller of the caller on. `depth` is used as given. Null when the walk fails; else the
    /// caller owns the text and gives it back through DeleteCStr or the C runtime's free.
    static char* ExceptionCallStack(void* exceptionPointers, int depth);

    /// Binds the debug help and starts it, once per process; the first capture does so by itself.
    static void InitSymbolEngine();
    static void InitFunctionPointers();

    static unsigned long GetModuleBaseName(void* process, HINSTANCE module,
                                           unsigned short const* buffer, unsigned long size);

    // What InitFunctionPointers bound: null until then, and where the system lacks a function. The
    // signatures are the reference system's, with records as plain pointers. Public so that a test
    // can put a DUMMY_ function of KXMBasMemDebug.h in a place.
    typedef void* (*FunctionTableAccessFunction)(void* process, std::uint64_t address);
    typedef std::uint64_t (*ModuleBaseFunction)(void* process, std::uint64_t address);
    typedef int (*StackWalkFunction)(std::uint32_t machine, void* process, void* thread,
                                     void* frame, void* context, void* readMemory,
                                     FunctionTableAccessFunction tableAccess,
                                     ModuleBaseFunction moduleBase, void* translate);
    typedef int (*SymInitializeFunction)(void* process, char const* searchPath, int invade);
    typedef std::uint32_t (*SymGetOptionsFunction)();
    typedef std::uint32_t (*SymSetOptionsFunction)(std::uint32_t options);
    typedef std::uint32_t (*ThreadIdFunction)(void* thread);
    typedef std::uint32_t (*ModuleBaseNameFunction)(void* process, HINSTANCE module,
                                                    unsigned short* buffer, std::uint32_t size);
    typedef int (*SymFromAddressFunction)(void* process, std::uint64_t address,
                                          std::uint64_t* displacement, void* symbol);
    typedef int (*LineFromAddressFunction)(void* process, std::uint64_t address,
                                           std::uint32_t* displacement, void* line);

    static HINSTANCE s_DBGHELP;
    static HINSTANCE s_PSAPI;
    static bool s_SymInitialized;
    static StackWalkFunction s_StackWalkFunction;
    static SymInitializeFunction s_SymInitialize;
    static SymGetOptionsFunction s_SymGetOptions;
    static SymSetOptionsFunction s_SymSetOptions;
    static ThreadIdFunction s_GetThreadId; ///< never assigned and never called
    static FunctionTableAccessFunction s_SymFunctionTableAccess;
    static ModuleBaseFunction s_SymGetModuleBase;
    static ModuleBaseNameFunction s_GetModuleBaseName;
    static SymFromAddressFunction s_SymGetSymFromAddr;
    static LineFromAddressFunction s_SymGetLineFromAddr;

private:
    char* ObtainCurrentCallStack(int depth, void const* unusedContext);
    void ObtainCurrentCallStack2(int unused, char* unusedText) const;

    Entry* entries[30];
    char* text;
    std::int32_t depth;
    std::int32_t length; // where the walk ended at the limit or at once; nothing reads it
    KXMBasMemFixedPoolAllocator pool; // nothing allocates from it
};

/// One resolved frame, as a value. Nothing in the library makes one.
class KXMBASMEM_API KXMBasCallStack::Entry {
public:
    explicit Entry(char const* unused);

    char const* SymName() const { return symName; }
    char const* SymHost() const { return symHost; }
    std::uint64_t SymAddr() const { return symAddr; }
    bool SymNamePresent() const { return symName[0] != '\0'; }
    bool SymHostPresent() const { return symHost[0] != '\0'; }

    /// One line: host, then the symbol, or the address when there is none. Nothing without a host.
    void Print() const;
    void Print(FILE* file) const;

private:
    char symName[512];
    char symHost[104];
    std::uint64_t symAddr;
    std::int32_t unused[3];
};

#endif
