// See KXMBasMemStackSweep.h.
#include "KXMBasMemStackSweep.h"

#include "platform/compiler.h"

// The words are volatile, so that all are written although only one is read, and that one is read after
// the deeper call, so that every frame is alive while the deepest is.
KXM_NO_SANITIZE int mem_ClearStackLevels(int levels) {
    if (levels < 1) {
        return 0;
    }
    volatile std::uint64_t level[1048576 / sizeof(std::uint64_t)];
    for (volatile std::uint64_t& word : level) {
        word = 0;
    }
    const int deeper = mem_ClearStackLevels(levels - 1);
    return deeper + static_cast<int>(level[0]);
}

void KXMBasMemClearStack() {
    mem_ClearStackLevels(4);
}

KXMBasMemStackSweep::KXMBasMemStackSweep(int wanted) : first(0), levels(wanted) {
    mem_ClearStackLevels(wanted);
}

KXMBasMemStackSweep::~KXMBasMemStackSweep() {}

std::uint64_t mem_getStackTop() {
    return 0;
}

std::uint64_t mem_getStackDepth() {
    return 0;
}
