// What the tests and their child process share: running it, and a look into a pool with a table.
#pragma once

#include "KXMBasMemRegionAllocator.h"
#include "child.h"

#include <string>
#include <utility>
#include <vector>

namespace kxm {

struct TruePoolInspector {
    explicit TruePoolInspector(KXMBasMemTruePool& inspected) : pool(inspected) {}

    void grow() { pool.Grow(); }
    void activate() { pool.m_active = true; }
    void update(bool increase, std::size_t size) {
        pool.UpdateMemoryInUse(increase ? KXMBasMemTruePool::increase : KXMBasMemTruePool::decrease,
                               size);
    }
    void** table() { return reinterpret_cast<void**>(pool.m_tbl); }
    int capacity() const { return pool.m_tblSize; }
    int last() const { return pool.m_lastBlock; }
    int& used_in_block() { return pool.m_usedInBlock; }
    std::size_t high_water() const { return pool.m_memoryHighWater; }

    KXMBasMemTruePool& pool;
};

} // namespace kxm

namespace test {

/// With the variables of this process that matter taken away, and `set` put in.
inline ChildResult run_probe(std::vector<std::string> arguments,
                             const std::vector<std::pair<std::string, std::string>>& set = {}) {
    ChildRequest request{sibling_program("client_probe"), std::move(arguments), {}};
    for (const char* const name :
         {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_CRTMALLOC", "KXQ_USE_ALIGNED_MEMORY",
          "KXQ_TBMALLOC", "KXA_UMR_PRINT", "KXA_UMR_WATCH_ALLOC_ID", "KXA_UMR_PRINT_ALLOC_SIZE"}) {
        request.environment.emplace_back(name, std::nullopt);
    }
    for (const auto& [name, value] : set) {
        request.environment.emplace_back(name, value);
    }
    return run_child(request);
}

} // namespace test
