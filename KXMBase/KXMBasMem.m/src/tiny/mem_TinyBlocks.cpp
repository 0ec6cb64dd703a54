// The pool's switches.
#include "mem_TinyBlocks.h"

#include <cstdlib>

#include "frame/mem_TinySwitches.h"
#include "mem_Mallinfo.h"
#include "tiny/mem_TBPool.h"

void mem_TBAllocator(int mode) {
    const char* const wish = std::getenv("KXQ_TBMALLOC");
    if ((wish != nullptr && wish[0] == '0') || !mem_Mallinfo::useDL) {
        mode = 0;
    }
    if (mode != 0) {
        mem_tinyBlocksUsed = true;
        newDeleteTinyBlock(true); // mode 2 would set the switch once more, and means no more
    } else {
        mem_tinyBlocksOn = false;
        newDeleteTinyBlock(false);
    }
}

void newDeleteTinyBlock(bool on) {
    mem_tinyBlocksOn = on;
    if (on) {
        mem_tinyBlocksUsed = true; // for good: blocks may come home after the pool went off
    }
}

void mem_TBThreadLock(bool on) {
    if (mem_tinyBlocksOn) {
        mem_TBPool::InstanceOrNull();
        mem_TBPool::ThreadLock(on);
    }
}
