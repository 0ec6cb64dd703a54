// The cache pool beside what gives a handle of 32 bits otherwise, an allocator and a table of pointers,
// and beside pointers alone: allocation, release, resolving a handle, and bytes per object with its
// handle. A million objects live, or half a GiB of them; see workers.h. The pool stands on our heap, with
// its defaults and with the profile of docs/backends.md.
#include "workers.h"

#include <numeric>
#include <utility>

#include "mem_CachePool.h"
#include "mem_DLAllocator.h"
#include "mem_Interface.h"

namespace {

using namespace bench;

const std::vector<Peer> peers = {
    {"cache pool", nullptr},      {"pool, profile", nullptr},
    {"malloc, table", nullptr},   {"mimalloc, table", "libmimalloc.so.2"},
    {"malloc, pointer", nullptr}, {"mimalloc, pointer", "libmimalloc.so.2"},
};

mem_DLAllocator heap_allocator;

struct PoolStore {
    using Handle = mem_CachePoolIDTyp<char*>;
    static Handle none() { return 0U; }
    Handle make(std::size_t size) { return pool->Alloc(size); }
    void drop(Handle handle) { pool->Free(handle); }
    char* at(Handle handle) const { return handle.Ptr(pool); }
    mem_CachePool* pool = mem_CachePool::CreatePool(&heap_allocator);
};

struct TableStore {
    using Handle = std::uint32_t;
    static Handle none() { return 0; }
    Handle make(std::size_t size) {
        std::uint32_t index = first_free;
        if (index != 0) {
            first_free = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(table[index]));
        } else {
            index = static_cast<std::uint32_t>(table.size());
            table.push_back(nullptr);
        }
        table[index] = std::malloc(size);
        return index;
    }
    void drop(Handle handle) {
        std::free(table[handle]);
        table[handle] = reinterpret_cast<void*>(std::uintptr_t{first_free});
        first_free = handle;
    }
    char* at(Handle handle) const { return static_cast<char*>(table[handle]); }
    std::vector<void*> table{nullptr}; // entry 0 is nobody's
    std::uint32_t first_free = 0;
};

struct PointerStore {
    using Handle = char*;
    static Handle none() { return nullptr; }
    Handle make(std::size_t size) { return static_cast<char*>(std::malloc(size)); }
    void drop(Handle handle) { std::free(handle); }
    char* at(Handle handle) const { return handle; }
};

std::string candidate;

template <typename Work> double with_store(const Work& work) {
    if (candidate.find("pool") != std::string::npos) {
        if (candidate == "pool, profile") { // of docs/backends.md
            mem_Mallopt(-1, SIZE_MAX);
            mem_Mallopt(-2, 64 * mib);
            mem_Mallopt(-3, SIZE_MAX);
        }
        PoolStore store;
        return work(store);
    }
    if (candidate.find("table") != std::string::npos) {
        TableStore store;
        return work(store);
    }
    PointerStore store;
    return work(store);
}

std::size_t live_count(std::size_t size) {
    return std::min<std::size_t>(1000000, 512 * mib / size);
}

template <typename Store> struct Live {
    using Handle = typename Store::Handle;
    explicit Live(Store& in, std::size_t size)
        : store(in), bytes(size), handles(live_count(size), Store::none()) {}
    void fill() {
        for (Handle& handle : handles) {
            handle = store.make(bytes);
            *store.at(handle) = 1;
        }
    }
    void shuffle() {
        Random random(3);
        for (std::size_t i = handles.size(); i-- > 1;) {
            std::swap(handles[i], handles[random.below(i + 1)]);
        }
    }
    Store& store;
    std::size_t bytes;
    std::vector<Handle> handles;
};

double fill(std::size_t size) {
    return with_store([=](auto& store) {
        Live live(store, size);
        return nanoseconds([&](std::size_t) { live.fill(); }, live.handles.size());
    });
}

double release_at_random(std::size_t size) {
    return with_store([=](auto& store) {
        Live live(store, size);
        live.fill();
        live.shuffle();
        return nanoseconds(
            [&](std::size_t) {
                for (const auto handle : live.handles) {
                    store.drop(handle);
                }
            },
            live.handles.size());
    });
}

double replace_at_random(std::size_t size) {
    return with_store([=](auto& store) {
        Live live(store, size);
        live.fill();
        live.shuffle();
        Random random(5);
        return timed(
            [&](std::size_t count) {
                for (std::size_t i = 0; i < count; ++i) {
                    auto& handle = live.handles[random.below(live.handles.size())];
                    store.drop(handle);
                    handle = store.make(size);
                    *store.at(handle) = 1;
                }
            },
            200);
    });
}

// Each object names the next, so that every step waits for the one before.
double walk(std::size_t size) {
    return with_store([=](auto& store) {
        Live live(store, size);
        live.fill();
        live.shuffle();
        using Handle = typename decltype(live)::Handle;
        for (std::size_t i = 0; i < live.handles.size(); ++i) {
            const Handle next = live.handles[(i + 1) % live.handles.size()];
            std::memcpy(store.at(live.handles[i]), &next, sizeof next);
        }
        Handle at = live.handles[0];
        return timed(
            [&](std::size_t count) {
                for (std::size_t i = 0; i < count; ++i) {
                    std::memcpy(static_cast<void*>(&at), store.at(at), sizeof at);
                }
                escape(&at);
            },
            200);
    });
}

// The handles lie in an array, so that the next steps can begin before this one ends.
double gather(std::size_t size) {
    return with_store([=](auto& store) {
        Live live(store, size);
        live.fill();
        live.shuffle();
        std::size_t at = 0, sum = 0;
        return timed(
            [&](std::size_t count) {
                for (std::size_t i = 0; i < count; ++i) {
                    sum += static_cast<std::size_t>(*store.at(live.handles[at]));
                    at = at + 1 < live.handles.size() ? at + 1 : 0;
                }
                escape(&sum);
            },
            200);
    });
}

double bytes_per_object(std::size_t size) {
    return with_store([=](auto& store) {
        const std::size_t before = resident_bytes();
        Live live(store, size);
        for (auto& handle : live.handles) {
            handle = store.make(size);
            std::memset(store.at(handle), 1, size);
        }
        return static_cast<double>(resident_bytes() - before) /
               static_cast<double>(live.handles.size());
    });
}

std::vector<Row> all_rows() {
    struct Kind {
        const char* name;
        const char* unit;
        double (*figure)(std::size_t);
    };
    std::vector<Row> rows;
    for (const Kind& kind : {Kind{"allocate", "ns", fill},
                             {"free at random", "ns", release_at_random},
                             {"replace at random", "ns", replace_at_random},
                             {"resolve, walk", "ns", walk},
                             {"resolve, gather", "ns", gather},
                             {"bytes per object", "B", bytes_per_object}}) {
        for (const std::size_t size : {8U, 64U, 512U, 16384U}) {
            rows.push_back({kind.name + (", " + size_text(size)), kind.unit, false,
                            [=] { return kind.figure(size); }});
        }
    }
    return rows;
}

} // namespace

int main(int argc, char** argv) {
    setenv("KXQ_DLALLOCATOR", "1", 1); // for the workers, in which the library is loaded with them
    return run(argc, argv,
               "Medians, and in brackets the ratio to the cache pool (above 1: slower or more)",
               peers, all_rows(), [](const std::string& name, bool) { candidate = name; });
}
