// Values that count as used, and place holders for what a memory-checking tool may supply.
#include "KXMBasMemoryCheck.h"

#include "platform/relaxed_word.h"

namespace {

// Carries no meaning: it grows by what is checked, is never reset and never reported. Threads lose
// each other's additions, which does no harm.
double sum = 0.0;

// A checker of undefined values speaks up when something is decided by one, not when it is added.
// Leaving out zeros changes no sum, and decides by this value alone: the sum itself, in which an
// undefined value stays for good, is never asked.
void use(double value) {
    if (value != 0.0) {
        os::relaxed_write(sum, os::relaxed_read(sum) + value);
    }
}

} // namespace

void KXMBasMemoryCheckVarDP(const double* value) {
    use(*value);
}

void KXMBasMemoryCheckVarSP(const float* value) {
    use(static_cast<double>(*value));
}

void KXMBasMemoryCheckVarINT(const int* value) {
    use(static_cast<double>(*value));
}

void KXMBasMemoryCheckVarINT64(const std::int64_t* value) {
    use(static_cast<double>(*value));
}

void KXMBasMemoryCheckArrayI(const void*) {}

void KXMBasMemoryCheckArrayP(const void*) {}

void KXMBasMemoryCheckArrayR(const void*) {}

void KXMBasMemoryCheckArrayD(const void*) {}

void KXMBasMemorySink(const std::int64_t&) {}

int memcheck_debug_printf(const char*, ...) {
    return 1;
}

int (*locateMemCheckPrintf())(const char*, ...) {
    return nullptr;
}
