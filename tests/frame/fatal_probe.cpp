// Reports a failed invariant to the foundation library's stand-in.
#include "KX0CORE.h"

#include "KXMBasMem.h"

#include <cstdio>

int main() {
    mem_Free(mem_Malloc(1)); // the memory library is there, and loaded the same foundation
    KXTFatalError("AssertionFailed:probe", nullptr, nullptr, nullptr, "fatal_probe", 42);
    std::puts("returned");
    return 0;
}
