// What the classes that the solver's containers hold cost over the C interface below them: handles and
// pools beside mem_Malloc, and containers on the adaptors beside the same containers on a minimal
// allocator over the same entries; and the hash table beside the standard one. On whatever back end the
// environment chooses.
#include "KXMBasMem.h"
#include "kxm_memory_resource.h"
#include "measure.h"

#include <cstdio>
#include <cstring>
#include <list>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Work = std::function<void(std::size_t)>;

// Pairs of allocate and free.
template <typename Allocate, typename Free>
Work pairs(std::size_t size, Allocate allocate, Free free) {
    return [=](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            void* const block = allocate(size);
            bench::escape(block);
            free(block);
        }
    };
}

void handles() {
    KXMBasAllocator plain(new KXMBasMemAllocatorNoInit), cleared(new KXMBasMemAllocator);
    KXMBasMemPool pool(2000, "bench", nullptr);
    pool.Activate();
    const auto free_c = [](void* block) { mem_Free(block); };
    std::puts(
        "Allocate and free one block, ns a pair (medians); \"added\" is for the whole pair\n");
    std::puts("     bytes  mem_Malloc   handle   added      pool   added   mem_Malloc, cleared   "
              "handle, cleared   added");
    for (std::size_t size = 16; size <= 65536; size *= 8) {
        const std::vector<double> ns =
            bench::measure({{"C", pairs(size, mem_Malloc, free_c)},
                            {"handle", pairs(
                                           size, [&](std::size_t n) { return plain.Alloc(n); },
                                           [&](void* block) { plain.Free(block); })},
                            {"pool", pairs(
                                         size, [&](std::size_t n) { return pool.Alloc(n); },
                                         [&](void* block) { pool.Free(block); })},
                            {"C cleared", pairs(
                                              size,
                                              [](std::size_t n) {
                                                  void* const block = mem_Malloc(n);
                                                  bench::escape(block);
                                                  return std::memset(block, 0, n);
                                              },
                                              free_c)},
                            {"cleared", pairs(
                                            size, [&](std::size_t n) { return cleared.Alloc(n); },
                                            [&](void* block) { cleared.Free(block); })}});
        std::printf("%10zu %11.2f %8.2f %7.2f %9.2f %7.2f %21.2f %17.2f %7.2f\n", size, ns[0],
                    ns[1], ns[1] - ns[0], ns[2], ns[2] - ns[0], ns[3], ns[4], ns[4] - ns[3]);
    }
}

// The least that a container asks of an allocator, over the same back end.
template <class T> struct Minimal {
    using value_type = T;
    Minimal() = default;
    template <class U> Minimal(const Minimal<U>&) {}
    T* allocate(std::size_t count) {
        void* const block = mem_Malloc(count * sizeof(T));
        if (block == nullptr) {
            throw std::bad_alloc();
        }
        return static_cast<T*>(block);
    }
    void deallocate(T* ptr, std::size_t) { mem_Free(ptr); }
    bool operator==(const Minimal&) const { return true; }
};

// Growing a container to `size` elements.
template <template <class, class> class Container, class A>
Work grow(std::size_t size, A allocator) {
    return [=](std::size_t count) {
        for (std::size_t each = 0; each < count; ++each) {
            Container<double, A> container(allocator);
            for (std::size_t i = 0; i < size; ++i) {
                container.push_back(static_cast<double>(i));
            }
            bench::escape(&container);
        }
    };
}

template <template <class, class> class Container> void containers(const char* name) {
    kxm::PoolResource resource;
    const kxm::HandleAllocator<double> handle(KXMBasAllocator(new KXMBasMemAllocatorNoInit));
    for (const std::size_t size : {10U, 1000U, 100000U}) {
        const std::vector<double> ns = bench::measure(
            {{"minimal", grow<Container>(size, Minimal<double>())},
             {"std", grow<Container>(size, std::allocator<double>())},
             {"pool", grow<Container>(size, kxm::PoolAllocator<double>())},
             {"handle", grow<Container>(size, handle)},
             {"pmr", grow<Container>(size, std::pmr::polymorphic_allocator<double>(&resource))}});
        const auto elements = static_cast<double>(size);
        std::printf("%-7s %7zu %9.2f %14.2f", name, size, ns[0] / elements, ns[1] / elements);
        for (std::size_t i = 2; i < ns.size(); ++i) {
            std::printf(" %8.2f %5.2f", ns[i] / elements, ns[i] / ns[0]);
        }
        std::puts("");
    }
}

void adaptors() {
    std::puts("\nGrowing a container of double by push_back, ns an element (medians); ratios to a "
              "minimal\nallocator over mem_Malloc and mem_Free\n");
    std::puts("        elements   minimal std::allocator     pool ratio   handle ratio      pmr "
              "ratio");
    containers<std::vector>("vector");
    containers<std::list>("list");
}

// One name after the other, each from an address of its own that no entry has.
template <typename Find> Work find_all(const std::vector<std::string>& names, Find find) {
    return [&names, find](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            int value = find(names[i % names.size()]);
            bench::escape(&value);
        }
    };
}

// The hash table with the number of buckets that the library gives its own, beside the standard one, which
// adds buckets as it grows; names as sources have them.
void tables() {
    std::puts(
        "\nLooking up a name of some 50 characters, ns (medians); 2047 buckets in the table\n");
    std::puts("   names     table: find   LookUp by address   unordered_map, of a string   of a C "
              "string   find's ratio to this");
    for (const std::size_t size : {100U, 2000U, 20000U}) {
        std::vector<std::string> names;
        for (std::size_t i = 0; i < size; ++i) {
            names.push_back("/projects/solver/components/part" + std::to_string(i % 37) +
                            "/source" + std::to_string(i * 7919 % 1000003) + ".cpp");
        }
        const std::vector<std::string> asked = names;
        HashTable<const char*, int> table(2047);
        std::unordered_map<std::string, int> standard;
        for (std::size_t i = 0; i < size; ++i) {
            table.Insert(names[i].c_str(), static_cast<int>(i));
            standard.emplace(names[i], static_cast<int>(i));
        }
        const std::vector<double> ns = bench::measure(
            {{"find", find_all(asked,
                               [&](const std::string& name) {
                                   return table.find(name.c_str()).CurrentValue();
                               })},
             {"LookUp", find_all(names,
                                 [&](const std::string& name) {
                                     int value = 0;
                                     table.LookUp(name.c_str(), value);
                                     return value;
                                 })},
             {"standard",
              find_all(asked,
                       [&](const std::string& name) { return standard.find(name)->second; })},
             {"standard of C", find_all(asked, [&](const std::string& name) {
                  return standard.find(name.c_str())->second;
              })}});
        std::printf("%8zu %15.1f %19.1f %28.1f %15.1f %22.2f\n", size, ns[0], ns[1], ns[2], ns[3],
                    ns[0] / ns[3]);
    }
}

} // namespace

int main() {
    std::printf("Clients of the C interface, on %s\n\n",
                mem_usingDL() != 0 ? "the heap" : "the C runtime's allocator");
    handles();
    adaptors();
    tables();
    return 0;
}
