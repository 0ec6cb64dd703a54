// Memory figures that work on any back end, and the flag that tells which one is bound.
#pragma once

#include <cstdint>

#include "KXMBasMemExport.h"

namespace kxm {

/// The heap's statistics, as its table slot answers them. In a namespace because the C library of
/// Linux has a structure of the same name.
struct mallinfo {
    std::uint64_t arena;    ///< bytes held from the system
    std::uint64_t ordblks;  ///< number of free chunks
    std::uint64_t smblks;   ///< always 0
    std::uint64_t hblks;    ///< always 0
    std::uint64_t hblkhd;   ///< bytes in direct mappings
    std::uint64_t usmblks;  ///< highest footprint, bytes
    std::uint64_t fsmblks;  ///< always 0
    std::uint64_t uordblks; ///< bytes in use
    std::uint64_t fordblks; ///< bytes free
    std::uint64_t keepcost; ///< bytes of the top chunk
};
static_assert(sizeof(mallinfo) == 80);

} // namespace kxm

class KXMBASMEM_API mem_Mallinfo {
public:
    /// True when the heap is the bound back end. Set once per process, when the table is bound, and
    /// read-only for everybody else; mem_usingDL() is the way to ask.
    static bool useDL;
};
