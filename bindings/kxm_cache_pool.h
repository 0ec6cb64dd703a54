// The cache pool as an object that ends by itself, for C++ clients that also release and resize. C++11,
// header only.
//
//   mem_Allocator source;
//   kxm::CachePool pool(source);
//   const kxm::CachePool::ID record = pool.Alloc(480);
//   static_cast<double*>(pool.Ptr(record))[0] = 1.0;
//   pool.Free(record);
//
// mem_CachePool itself leaves some care to its client, see its header. This class takes it:
// - A request may follow any release. The pool keeps one allocation of eight bytes of its own, and renews it
//   before a request that could meet the emptied cluster.
// - Memory that runs out is std::bad_alloc, and everything is as it was. For that the source must be one that
//   throws, as mem_Allocator does. With one that answers null, as mem_DLAllocator does, the memory of a cluster
//   that takes an emptied one's place is a fatal error when it is refused.
// - A block of its own (above 16384 bytes) is resized by a new one and a copy.
// - The 32768th cluster, which identifiers cannot name, is std::bad_alloc, and so is every request of up to
//   16384 bytes after it.
//
// Identifiers are mem_CachePool's own, so what is said there holds: one belongs to its pool, is not to be used
// after its release, and is not checked. One thread at a time; several pools may share a source.
#ifndef kxm_cache_pool_h
#define kxm_cache_pool_h

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "mem_CachePool.h"

namespace kxm {

class CachePool {
public:
    using ID = mem_CachePoolIDTyp<void*>;

    /// `source` must outlive the pool. Throws std::bad_alloc.
    explicit CachePool(mem_Allocator& source)
        : pool_(mem_CachePool::CreatePool(&source)), keeper_(0U) {
        if (pool_ == nullptr) {
            throw std::bad_alloc();
        }
    }

    /// Not null, but for 0 bytes. Throws std::bad_alloc.
    ID Alloc(std::size_t bytes) {
        if (bytes == 0) {
            return ID(0U);
        }
        if (bytes <= largest_clustered) {
            settle();
        }
        return named(pool_->Alloc(bytes));
    }

    /// The record of `old_bytes` at a size of `bytes`, by an identifier that is often another one. Contents are
    /// kept as far as both sizes go. Throws std::bad_alloc, and the record is as it was. A null identifier
    /// allocates; 0 bytes release.
    ID ReAlloc(ID id, std::size_t old_bytes, std::size_t bytes) {
        if (id.IsNull() || bytes == 0) {
            Free(id);
            return Alloc(bytes);
        }
        if (id.bits.inCluster != 0 && bytes <= largest_clustered && !crowded_) {
            settle();
            return named(pool_->ReAlloc(id, bytes));
        }
        const ID made = Alloc(bytes);
        std::memcpy(Ptr(made), Ptr(id), (std::min)(old_bytes, bytes));
        Free(id);
        return made;
    }

    /// Nothing for the null identifier.
    void Free(ID id) {
        unsettled_ = unsettled_ || (id.HasValue() && id.bits.inCluster != 0);
        pool_->Free(id);
    }

    /// Null for the null identifier. The address holds until the record is released or resized.
    void* Ptr(ID id) const { return id.Ptr(pool_.get()); }

    /// For typed identifiers, `stress.Ptr(pool.get())`, and for the prints. Release and resize through this
    /// class alone.
    mem_CachePool* get() const { return pool_.get(); }

private:
    static constexpr std::size_t largest_clustered = 16384;
    static constexpr unsigned int last_cluster = 32767;

    struct End {
        void operator()(mem_CachePool* pool) const { pool->Delete(); }
    };

    // After a release the pool's cluster of the latest change may be one that is gone; a change of the keeper
    // makes it one that is there. The new keeper comes first: the old one's release then cannot empty it.
    void settle() {
        if (full_) {
            throw std::bad_alloc();
        }
        if (!unsettled_) {
            return;
        }
        const ID fresh = named(pool_->Alloc(8));
        pool_->Free(keeper_);
        keeper_ = fresh;
        unsettled_ = false;
    }

    // Clusters are numbered from 1, and the 32768th appears as 0: what lies there is lost until the pool ends.
    // The pool's ReAlloc would lose the old record with it, so it is not used once the last one was seen.
    ID named(ID id) {
        if (id.bits.inCluster != 0) {
            crowded_ = crowded_ || id.bits.cluster == last_cluster;
            full_ = full_ || id.bits.cluster == 0;
        }
        if (id.IsNull() || (id.bits.inCluster != 0 && full_)) {
            throw std::bad_alloc();
        }
        return id;
    }

    std::unique_ptr<mem_CachePool, End> pool_;
    ID keeper_;
    bool unsettled_ = false;
    bool crowded_ = false;
    bool full_ = false;
};

} // namespace kxm

#endif
