/* Wiping of the stack below the caller, so that no later frame finds what earlier ones left there. A
   wipe deeper than the calling thread's stack overflows it. */
#ifndef KXMBasMemStackSweep_h
#define KXMBasMemStackSweep_h

#include "KXMBasMemExport.h"

#ifdef __cplusplus
#include <cstdint>

extern "C" {
#endif

/** Zeroes 4 mebibytes of stack. A Windows program whose linker reserved less for its stacks (2
    mebibytes, unless told otherwise) overflows. */
KXMBASMEM_API void KXMBasMemClearStack(void);

#ifdef __cplusplus
}

/// Zeroes `levels` mebibytes of the stack below the caller; nothing for 0 and less. Returns 0.
KXMBASMEM_API int mem_ClearStackLevels(int levels);

/// Wipes when it is built: `levels` mebibytes.
class KXMBASMEM_API KXMBasMemStackSweep {
public:
    explicit KXMBasMemStackSweep(int levels);
    ~KXMBasMemStackSweep();

private:
    std::int32_t first; // 0; neither is read
    std::int32_t levels;
};

// Where the stack begins and how deep it is: not found out, always 0.
KXMBASMEM_API std::uint64_t mem_getStackTop();
KXMBASMEM_API std::uint64_t mem_getStackDepth();
#endif

#endif
