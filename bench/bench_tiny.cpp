// The tiny block pool beside other allocators, in one thread: through the C interface with its lock
// off and on, through the entry for numerical routines, and beside that the heap without the pool;
// see workers.h.
#include "workers.h"

#include <array>
#include <utility>

namespace {

using namespace bench;

const std::vector<Peer> peers = {
    {"pool", nullptr},
    {"pool locked", nullptr},
    {"smallalloc", nullptr},
    {"heap", nullptr},
    {"C runtime", nullptr},
    {"jemalloc", "libjemalloc.so.2"},
    {"mimalloc", "libmimalloc.so.2"},
    {"tcmalloc", "libtcmalloc_minimal.so.4"},
};

void* (*allocate_vector)(std::size_t); // of more than the pool serves
void* (*small_allocate)(int*);
void (*small_free)(void**);

void open_allocator(const std::string& name, bool) {
    if (name != "heap" && name != "smallalloc" && name.rfind("pool", 0) != 0) {
        open_peer();
        allocate_vector = allocate;
        return;
    }
    void* const library = open_heap(KXM_LIBRARY);
    allocate_vector = allocate;
    if (name == "smallalloc") {
        bind(small_allocate, library, "mem_smallalloc");
        bind(small_free, library, "mem_smallfree");
        allocate = [](std::size_t size) {
            int bytes = static_cast<int>(size);
            return small_allocate(&bytes);
        };
        release = [](void* block) { small_free(&block); };
    } else if (name != "heap") {
        void (*turn_on)(int) = nullptr;
        void (*lock)(bool) = nullptr;
        bind(turn_on, library, "mem_TBAllocator");
        bind(lock, library, "mem_TBThreadLock");
        turn_on(1);
        lock(name == "pool locked");
    }
}

constexpr std::size_t working_set = 100000;

std::vector<void*> many(std::size_t size, std::size_t count = working_set) {
    std::vector<void*> held(count);
    for (void*& block : held) {
        block = allocate(size);
        std::memset(block, 1, size);
    }
    return held;
}

// `depth` blocks more and, the last one first, away again, on top of a working set.
double last_in_first_out(std::size_t size, std::size_t depth) {
    const std::vector<void*> held = many(size);
    return timed([=](std::size_t count) {
        std::array<void*, 32> top;
        for (std::size_t done = 0; done < count; done += depth) {
            for (std::size_t i = 0; i < depth; ++i) {
                top[i] = allocate(size);
                escape(top[i]);
            }
            for (std::size_t i = depth; i-- > 0;) {
                release(top[i]);
            }
        }
    });
}

// Blocks of the working set are replaced at random; `spare` of each 16 places stand empty, so that
// there is room between the blocks.
double at_random(std::size_t size, std::size_t spare) {
    std::vector<void*> held = many(size);
    Random random(5);
    for (std::size_t i = 0; i < held.size() * spare / 16; ++i) {
        std::swap(held[random.below(held.size())], held.back());
        release(held.back());
        held.pop_back();
    }
    return timed([&](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            void*& block = held[random.below(held.size())];
            release(block);
            block = allocate(size);
            *static_cast<char*>(block) = 1;
        }
    });
}

// Resident over asked bytes; with `beside`, in turn with as many bytes in vectors of 500 to 3500.
double resident_ratio(std::size_t size, bool beside) {
    constexpr std::size_t objects = 500000;
    std::vector<void*> held(objects), vectors(objects); // resident before
    Random random(9);
    const std::size_t before = resident_bytes();
    std::size_t asked = 0, in_vectors = 0, count = 0;
    for (void*& block : held) {
        block = allocate(size);
        std::memset(block, 1, size);
        asked += size;
        if (beside && in_vectors < asked) {
            const std::size_t bytes = 500 + random.below(3000);
            vectors[count] = allocate_vector(bytes);
            std::memset(vectors[count++], 1, bytes);
            in_vectors += bytes;
        }
    }
    return static_cast<double>(resident_bytes() - before) / static_cast<double>(asked + in_vectors);
}

std::vector<Row> all_rows() {
    std::vector<Row> rows;
    for (const std::size_t size : {8U, 16U, 48U, 64U, 128U}) {
        const std::string bytes = " " + size_text(size);
        rows.push_back({"pair" + bytes, "ns", false, [=] { return last_in_first_out(size, 1); }});
        rows.push_back(
            {"LIFO depth 32" + bytes, "ns", false, [=] { return last_in_first_out(size, 32); }});
        rows.push_back(
            {"replace in 100,000" + bytes, "ns", false, [=] { return at_random(size, 0); }});
        rows.push_back(
            {"replace, a quarter empty" + bytes, "ns", false, [=] { return at_random(size, 4); }});
    }
    for (const bool beside : {false, true}) {
        for (const std::size_t size : {4U, 8U, 24U, 40U, 100U}) {
            rows.push_back(
                {"resident over asked " + size_text(size) + (beside ? ", beside vectors" : ""), "x",
                 false, [=] { return resident_ratio(size, beside); }});
        }
    }
    return rows;
}

} // namespace

int main(int argc, char** argv) {
    return run(argc, argv,
               "Medians, and in brackets the ratio to the pool (above 1: slower or more); one pair "
               "of allocate and free",
               peers, all_rows(), open_allocator);
}
