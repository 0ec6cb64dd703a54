// The mesh as records that refer to one another, as a model does that is edited: an element holds its
// nodes, a node its place. Records live in a cache pool and are held by identifiers of 32 bits.
#pragma once

#include "memory.h"

#include <KXMBasMem.h>

#include <memory>

namespace elasticity {

struct Mesh;
struct Point;

class Records {
public:
    /// Throws std::bad_alloc when memory is refused.
    explicit Records(const Mesh& mesh);

    /// Node `node` of an element, by way of the element's record.
    const Point& point(std::size_t element, std::size_t node) const;

    /// Prints what the handles take, what pointers in their place would, and the pool's summary.
    void print() const;

private:
    using NodeID = mem_CachePoolIDTyp<double*>;
    using ElementID = mem_CachePoolIDTyp<unsigned int*>;

    // The pool asks for clusters, and what it asks for is counted like the rest of this program's.
    class Source : public mem_Allocator {
    public:
        Source() = default;
        Source(const Source&) = delete;
        Source& operator=(const Source&) = delete;
        ~Source() override;
        void* Malloc(const char* tag, std::size_t size) override;

    private:
        std::size_t charged_ = 0;
    };
    struct EndPool {
        void operator()(mem_CachePool* pool) const { pool->Delete(); }
    };

    std::unique_ptr<Source> source_{};
    std::unique_ptr<mem_CachePool, EndPool> pool_{}; // ends before its source
    std::size_t nodes_per_element_ = 0;
    Vector<ElementID> elements_{};
    std::size_t handles_ = 0;
};

} // namespace elasticity
