// The frame limit of call stacks.
#include "KXMBasCallStack.h"

#include <cstdlib>

int GetCallStackDepth() {
    const char* const depth = std::getenv("KXA_CALLSTACK_DEPTH");
    return depth != nullptr ? std::atoi(depth) : 20;
}
