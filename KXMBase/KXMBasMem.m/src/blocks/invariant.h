// Where a broken invariant of blocks, regions and pools is reported. The checks are part of the
// product, not of a checked build. The foundation library ends the process; should it return, the
// code after a check carries on as if it had held.
#pragma once

#include "platform/compiler.h"

namespace blocks {

/// `source` is the name that the report gives the source file.
KXM_NEVER_INLINE void report_broken(const char* text, const char* source, int line);

inline void require(bool holds, const char* text, const char* source, int line = __builtin_LINE()) {
    if (!holds) [[unlikely]] {
        report_broken(text, source, line);
    }
}

} // namespace blocks
