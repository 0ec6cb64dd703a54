// See records.h.
#include "records.h"

#include "mesh.h"

#include <cstdio>
#include <new>

namespace elasticity {

namespace {

// One that only a refusal leaves empty.
mem_CachePoolIDTyp<void*> granted(mem_CachePoolIDTyp<void*> id) {
    if (id.IsNull())
        throw std::bad_alloc{};
    return id;
}

} // namespace

Records::Source::~Source() {
    work_discharge(charged_);
}

// As the base: never null. What the pool gives back before its end stays counted until then.
void* Records::Source::Malloc(const char*, std::size_t size) {
    void* const block = counted(size, [size] { return mem_Malloc(size); });
    charged_ += size;
    return block;
}

Records::Records(const Mesh& mesh)
    : source_(new Source), pool_(mem_CachePool::CreatePool(source_.get())),
      nodes_per_element_(static_cast<std::size_t>(mesh.nodes_per_element)) {
    Vector<NodeID> nodes;
    for (const Point& point : mesh.nodes) {
        nodes.push_back(granted(pool_->Alloc(sizeof(Point))));
        new (pool_->Ptr(nodes.back())) Point(point);
    }
    for (std::size_t e = 0; e < mesh.element_count(); ++e) {
        elements_.push_back(granted(pool_->Alloc(nodes_per_element_ * sizeof(NodeID))));
        unsigned int* const record = elements_.back().Ptr(pool_.get());
        for (std::size_t i = 0; i < nodes_per_element_; ++i)
            record[i] = nodes[static_cast<std::size_t>(mesh.element(e)[i])].Value();
    }
    handles_ = elements_.size() * (1 + nodes_per_element_); // to elements, and theirs to nodes
}

const Point& Records::point(std::size_t element, std::size_t node) const {
    const NodeID id = elements_[element].Ptr(pool_.get())[node];
    return *static_cast<const Point*>(static_cast<const void*>(id.Ptr(pool_.get())));
}

void Records::print() const {
    constexpr double mib = 1048576;
    const auto handles = static_cast<double>(handles_);
    std::printf(
        "  records: %zu elements of %zu nodes in a cache pool; their %zu handles take %.2f MiB,\n"
        "  and as pointers would take %.2f MiB\n",
        elements_.size(), nodes_per_element_, handles_, handles * 4 / mib, handles * 8 / mib);
    std::fflush(stdout);
    pool_->DebugSummary();
}

} // namespace elasticity
