// See host.h.
#include "frame/host.h"

#include <cstdlib>

#include "frame/fork.h"
#include "frame/seam_tiny_pool.h"
#include "heap/dlmalloc.h"
#include "heap/malloc_grow.h"
#include "mem_BoundFunctions.h"
#include "mem_TinyBlocks.h"
#include "platform/os.h"

namespace host {
namespace {

template <typename Function> void replace(Function*& slot, Function* old, Function* fresh) {
    if (slot == old) {
        slot = fresh;
    }
}

} // namespace

void set_runtime(const Runtime& runtime) {
    const os::RuntimeAllocator before = os::runtime_allocator;
    os::runtime_allocator = {runtime.malloc, runtime.calloc, runtime.realloc, runtime.free,
                             runtime.posix_memalign};
    replace(mem_malloc, before.malloc, runtime.malloc);
    replace(mem_calloc, before.calloc, runtime.calloc);
    replace(mem_realloc, before.realloc, runtime.realloc);
    replace(mem_free, before.free, runtime.free);
}

void set_fork_question(bool (*interrupted)()) {
    forking::ask_whether_interrupted(interrupted);
}

const os::GranuleMap* heap_granules() {
    dlfree(dlmalloc(1));
    return os::vm_granules();
}

void watch_peak(std::atomic<std::uint64_t>* peak) {
    heap::peak_watch = peak;
    if (peak != nullptr) {
        peak->store(dlmalloc_max_footprint(), std::memory_order_relaxed);
    }
}

void start_tiny() {
    newDeleteTinyBlock(true);
    mem_TBThreadLock(true);
}

void* tiny_alloc(std::size_t size) {
    return tiny_seam::alloc(size);
}

void tiny_free(void* block) {
    tiny_seam::free(block);
}

} // namespace host
