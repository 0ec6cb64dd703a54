// A pool with an allocator that counts what it gave, and refuses what the test tells it to.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <new>
#include <string>

#include "cache/cache_walk.h"
#include "mem_Interface.h"
#include "mem_Mallinfo.h"

namespace test {

using ID = mem_CachePoolIDTyp<void*>;

class CountingAllocator : public mem_Allocator {
public:
    void* Malloc(const char* tag, std::size_t size) override {
        // The tables of blocks cannot be refused by a null: that is not survived, as their owner says.
        if (std::strcmp(tag, "mem_Block") == 0) {
            if (--throw_at_table == 0) {
                throw std::bad_alloc();
            }
        } else {
            ++requests;
            if (refuse_every != 0 && requests % refuse_every == 0) {
                ++refused;
                return nullptr;
            }
        }
        void* const memory = mem_Malloc(size);
        sizes[memory] = size;
        ++made[tag];
        return memory;
    }
    void* Realloc(const char*, void* memory, std::size_t size) override {
        if (refuse_every != 0 && ++requests % refuse_every == 0) {
            ++refused;
            return nullptr;
        }
        sizes.erase(memory);
        void* const resized = mem_Realloc(memory, size);
        sizes[resized] = size;
        return resized;
    }
    void Free(const char*, void* memory) override {
        unknown += sizes.erase(memory) == 0 ? 1 : 0;
        mem_Free(memory);
    }

    int requests = 0, refused = 0, refuse_every = 0;
    int throw_at_table = 0;             ///< the n-th request for one from here on
    int unknown = 0;                    ///< releases of what was not given
    std::map<void*, std::size_t> sizes; ///< what is out
    std::map<std::string, int> made;
};

/// As with the heap bound, all memory goes back through the allocator, so that it can be counted.
class OwnPool {
public:
    OwnPool() : before_(mem_Mallinfo::useDL) {
        mem_Mallinfo::useDL = true;
        pool = mem_CachePool::CreatePool(&allocator);
    }
    ~OwnPool() {
        end();
        mem_Mallinfo::useDL = before_;
    }
    OwnPool(const OwnPool&) = delete;
    OwnPool& operator=(const OwnPool&) = delete;

    void end() {
        if (pool != nullptr) {
            pool->Delete();
            pool = nullptr;
        }
    }
    mem_CachePool* operator->() const { return pool; }
    cache::Census census() const { return cache::take_census(*pool); }

    CountingAllocator allocator{};
    mem_CachePool* pool = nullptr;

private:
    bool before_;
};

inline int cluster_of(mem_CachePoolID id) {
    return static_cast<int>(id.bits.cluster);
}
inline int slot_of(mem_CachePoolID id) {
    return static_cast<int>(id.bits.offset) / 1024;
}

} // namespace test
