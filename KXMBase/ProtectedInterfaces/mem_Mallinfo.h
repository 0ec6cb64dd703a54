/* Memory figures of the heap and of any back end, and the flag that tells which one is bound. */
#ifndef mem_Mallinfo_h
#define mem_Mallinfo_h

#include <stdint.h>

#include "KXMBasMemExport.h"

/* The heap's statistics, as its table slot answers them: kxm::mallinfo in C++ and kxm_mallinfo in
   C, because the C library of Linux has a structure of the plain name. */
#ifdef __cplusplus
namespace kxm {
struct mallinfo {
#else
typedef struct kxm_mallinfo {
#endif
    uint64_t arena;    /**< bytes in segments held from the system */
    uint64_t ordblks;  /**< number of free chunks */
    uint64_t smblks;   /**< always 0 */
    uint64_t hblks;    /**< always 0 */
    uint64_t hblkhd;   /**< bytes in direct mappings */
    uint64_t usmblks;  /**< highest footprint, bytes */
    uint64_t fsmblks;  /**< always 0 */
    uint64_t uordblks; /**< bytes in use */
    uint64_t fordblks; /**< bytes free */
    uint64_t keepcost; /**< bytes of the top chunk */
#ifdef __cplusplus
};
static_assert(sizeof(mallinfo) == 80, "ten 64-bit figures");
} // namespace kxm

/// A few figures of the memory behind the library, on any back end, in bytes.
class KXMBASMEM_API mem_Mallinfo {
public:
    /// Takes the figures. With the heap bound: its footprint as `committedBytes`, the others zero.
    /// Otherwise those of the C runtime's own heap, looked at without a lock of this library.
    mem_Mallinfo();

    uint64_t committedBytes; ///< held from the system and backed by memory
    uint64_t usedBytes;      ///< in blocks of clients
    uint64_t freeBytes;      ///< in free blocks
    uint64_t reservedBytes;  ///< held from the system as address space alone

    /// True when the heap is the bound back end. Set once per process, when the table is bound, and
    /// read-only for everybody else; mem_usingDL() is the way to ask.
    static bool useDL;

private:
    void DLinfo();
};
#else
} kxm_mallinfo;
#endif

#endif
