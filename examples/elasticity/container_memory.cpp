// See container_memory.h.
#include "container_memory.h"

namespace elasticity {

namespace {

// A named pool in the place of an allocator. Null when memory is refused, as the pool has it.
template <class Pool> class PoolAllocator : public KXMBasAllocatorBase {
public:
    void* Alloc(std::size_t size) override { return Pool::Instance().Alloc(size); }
    void* Alloc(std::size_t size, std::size_t& actual_size) override {
        actual_size = size;
        return Alloc(size);
    }
    void Free(void* ptr) override { Pool::Instance().Free(ptr); }
    const KXMBasAllocator& LargeBlockAllocator(const KXMBasAllocator& self) const override {
        return self;
    }
    void* allocate(std::size_t size, const void*) override { return Alloc(size); }
    void deallocate(void* ptr, std::size_t) override { Free(ptr); }
};

struct Handles {
    KXMBasAllocator vectors{new PoolAllocator<KXMBasMemPoolVector>};
    KXMBasAllocator maps{new PoolAllocator<KXMBasMemPoolMap>};
};

Handles& handles() {
    static Handles made;
    return made;
}

bool counting = false;
bool handles_made = false; // not when memory was refused as they were made

PoolFigures figures_of(KXMBasMemPool& pool) {
    return {pool.PoolName(), pool.PoolID(), pool.MemoryCurrent(), pool.MemoryPeak()};
}

} // namespace

const KXMBasAllocator& container_memory(Family family) {
    return family == Family::map ? handles().maps : handles().vectors;
}

void start_container_memory(bool tiny_pool, bool track_vectors) {
    counting = mem_usingDL() != 0 && !tiny_pool;
    KXMBasMemPool* const pools[] = {&KXMBasMemPoolVector::Instance(),
                                    &KXMBasMemPoolMap::Instance()};
    if (counting)
        for (KXMBasMemPool* const pool : pools)
            pool->Activate();
    Handles& made = handles();
    handles_made = true;
    if (track_vectors)
        made.vectors = KXMBasAllocator(new KXMBasMemTrackAlloc);
}

void end_container_memory() noexcept {
    if (handles_made) {
        // The last handle: an allocator that tracks speaks.
        handles().vectors = KXMBasAllocator(nullptr);
        handles().maps = KXMBasAllocator(nullptr);
    }
    omi_SingletonBase<KXMBasMemPoolVector>::Finalize();
    omi_SingletonBase<KXMBasMemPoolMap>::Finalize();
    counting = false;
}

bool pools_count() {
    return counting;
}

std::array<PoolFigures, 3> pool_figures() {
    return {figures_of(operatorNewPool), figures_of(KXMBasMemPoolVector::Instance()),
            figures_of(KXMBasMemPoolMap::Instance())};
}

} // namespace elasticity
