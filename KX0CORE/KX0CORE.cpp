// A stand-in for the solver's foundation library: writes a failed invariant to standard error and
// ends the process. A solver puts its own library of this name in its place.
#include "KX0CORE.h"

#include <cstdio>
#include <cstdlib>

void KXTFatalError(const char* text, const char*, const char*, const char*, const char* source,
                   int line) {
    std::fprintf(stderr, "*** Fatal error: %s (%s, line %d)\n", text != nullptr ? text : "",
                 source != nullptr ? source : "", line);
    std::fflush(stderr);
    std::abort();
}
