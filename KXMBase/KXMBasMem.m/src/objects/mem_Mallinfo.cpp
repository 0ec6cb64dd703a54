// The record of memory figures that works on any back end.
#include "mem_Mallinfo.h"

#include "heap/dlmalloc.h"
#include "platform/os.h"

mem_Mallinfo::mem_Mallinfo() : committedBytes(0), usedBytes(0), freeBytes(0), reservedBytes(0) {
    if (useDL) {
        DLinfo();
        return;
    }
    os::RuntimeHeap figures{};
    if (os::runtime_heap(figures)) {
        committedBytes = figures.committed;
        usedBytes = figures.used;
        freeBytes = figures.free;
        reservedBytes = figures.reserved;
    }
}

void mem_Mallinfo::DLinfo() {
    committedBytes = dlmalloc_footprint();
    usedBytes = 0;
    freeBytes = 0;
}
