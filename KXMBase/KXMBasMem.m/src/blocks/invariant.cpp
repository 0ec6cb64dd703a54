// See invariant.h.
#include "blocks/invariant.h"

#include "KX0CORE.h"

namespace blocks {

void report_broken(const char* text, const char* source, int line) {
    KXTFatalError(text, nullptr, nullptr, nullptr, source, line);
}

} // namespace blocks
