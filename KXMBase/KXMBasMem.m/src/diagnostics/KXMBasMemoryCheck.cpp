// Place holders for what a memory-checking tool may supply.
#include "KXMBasMemoryCheck.h"

int memcheck_debug_printf(const char*, ...) {
    return 1;
}

int (*locateMemCheckPrintf())(const char*, ...) {
    return nullptr;
}
