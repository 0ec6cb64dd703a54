// A failed invariant of this room. It is expected not to return; where it does, the code after each
// call leaves what is recorded as it is.
#pragma once

#include "KX0CORE.h"

namespace tracking {

inline void fatal(const char* text, const char* source, int line) {
    KXTFatalError(text, nullptr, nullptr, nullptr, source, line);
}

} // namespace tracking
