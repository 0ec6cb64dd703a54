// Around the call stack: where the debug-help library is found, place holders that other components
// name, and routines that fail on purpose to exercise the capture.
#ifndef KXMBasMemDebug_h
#define KXMBasMemDebug_h

#include <cstdint>

#include "KXMBasCallStack.h"

class KXMBASMEM_API KXMBasMemDebug {
public:
    /// Finds and loads the debug-help library; null, with a warning on standard error, when there is
    /// none. Where it searches PATH, the process's own value of it is left cut at a separator. Searches
    /// anew at each call. Not thread-safe there.
    static HINSTANCE LoadDBHELP();

    static void Demangle(char* name, std::uint64_t size); ///< leaves its arguments untouched

private:
    static HINSTANCE s_DBHELP; // tested and never assigned
};

/// A place holder: walks nothing.
class KXMBASMEM_API KXMBasMemStackWalker {
public:
    KXMBasMemStackWalker();
    ~KXMBasMemStackWalker();
    char* CurrentCallStack(char const*, char const*, int); ///< null
    void Backtrace();
};

/// What KXMBasMemError03 throws.
struct KXMBASMEM_API omi_FatalError {
    char const* text;
    std::int32_t code;
};

// Each fails on purpose: an access fault 32,000,000 bytes past an array, a stack frame of 16,000,000
// bytes, and an omi_FatalError of "FatalError" and 101.
KXMBASMEM_API void KXMBasMemError01();
KXMBASMEM_API void KXMBasMemError02();
KXMBASMEM_API void KXMBasMemError03();

// Stand-ins with the signatures of the debug help's functions: each returns 0 and does nothing else.
KXMBASMEM_API int DUMMY_STACKWALK(std::uint32_t machine, void* process, void* thread, void* frame,
                                  void* context, void* readMemory,
                                  KXMBasCallStack::FunctionTableAccessFunction tableAccess,
                                  KXMBasCallStack::ModuleBaseFunction moduleBase, void* translate);
KXMBASMEM_API std::uint32_t DUMMY_SYMGETOPTIONS();
KXMBASMEM_API std::uint32_t DUMMY_SYMSETOPTIONS(std::uint32_t options);
KXMBASMEM_API int DUMMY_SYMINITIALIZE(void* process, char const* searchPath, int invade);
KXMBASMEM_API int DUMMY_SYMCLEANUP(void* process);
KXMBASMEM_API std::uint32_t DUMMY_GETTHREADID(void* thread);
KXMBASMEM_API void* DUMMY_SYMFUNCTIONTABLEACCESS(void* process, std::uint64_t address);
KXMBASMEM_API std::uint64_t DUMMY_SYMGETMODULEBASE(void* process, std::uint64_t address);
KXMBASMEM_API std::uint32_t DUMMY_GETMODULEBASENAME(void* process, HINSTANCE module,
                                                    unsigned short* buffer, std::uint32_t size);
KXMBASMEM_API int DUMMY_SYMGETSYMFROMADDR(void* process, std::uint64_t address,
                                          std::uint64_t* displacement, void* symbol);
KXMBASMEM_API int DUMMY_SYMGETLINEFROMADDR(void* process, std::uint64_t address,
                                           std::uint32_t* displacement, void* line);

#endif
