// Does one thing to the heap that must end the process, as a child of its tests. Says that it came
// so far first, and that it came further if it did.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>

#include "heap/malloc_chunk.h"
#include "heap_fixture.h"

namespace {

constexpr std::size_t mib = std::size_t{1} << 20;

std::uint64_t* words(void* mem) {
    return static_cast<std::uint64_t*>(mem);
}

void twice(std::size_t size) {
    void* const mem = dlmalloc(size);
    void* const guard = dlmalloc(1);
    dlfree(mem);
    dlfree(mem);
    dlfree(guard);
}

const std::map<std::string, std::function<void()>> deeds{
    {"double-free-small", [] { twice(40); }},
    {"double-free-large", [] { twice(5000); }},
    {"double-free-of-the-last",
     [] {
         void* const mem = dlmalloc(100); // has become the top's start
         dlfree(mem);
         dlfree(mem);
     }},
    {"resize-after-free",
     [] {
         void* const mem = dlmalloc(100);
         dlmalloc(1);
         dlfree(mem);
         dlrealloc(mem, 200);
     }},
    {"write-past-the-end",
     [] {
         void* const mem = dlmalloc(56);
         void* const next = dlmalloc(56);
         std::memset(mem, 0, 80); // over the next chunk's head
         dlfree(next);
     }},
    {"head-loses-its-predecessor",
     [] {
         void* const mem = dlmalloc(56);
         void* const next = dlmalloc(56);
         words(next)[-1] &= ~heap::PINUSE_BIT;
         dlfree(mem);
     }},
    {"head-claims-a-huge-size",
     [] {
         void* const mem = dlmalloc(56);
         words(mem)[-1] = 0xFFFFFFFFFFFFFFC3;
         dlfree(mem);
     }},
    {"free-list-overwritten",
     [] {
         void* const mem[] = {dlmalloc(56), dlmalloc(1), dlmalloc(56), dlmalloc(1)};
         dlfree(mem[0]);
         dlfree(mem[2]);
         words(mem[2])[0] = 64; // fd: an address below all others
         dlmalloc(56);
     }},
    {"tree-overwritten",
     [] {
         void* const mem[] = {dlmalloc(1000), dlmalloc(1), dlmalloc(1000), dlmalloc(1)};
         dlfree(mem[0]);
         dlfree(mem[2]);
         words(mem[2])[0] = 64;
         words(mem[0])[0] = 64;
         dlmalloc(1000);
     }},
    {"foreign-pointer",
     [] {
         dlfree(dlmalloc(1));
         alignas(64) static std::uint64_t foreign[16]{};
         dlfree(&foreign[8]); // no bit in use, or below the heap
     }},
    {"pointer-into-a-block",
     [] {
         char* const mem = static_cast<char*>(dlcalloc(1, 1000));
         dlfree(mem + 128);
     }},
    // Not a test of its result, on purpose: ends in an access fault.
    {"first-mapping-without-a-segment",
     [] {
         dlmallopt(-5, 4096);
         dlmalloc(mib);
     }},
};

} // namespace

int main(int argc, char** argv) {
    const auto deed = argc == 2 ? deeds.find(argv[1]) : deeds.end();
    if (deed == deeds.end()) {
        return 2;
    }
    std::puts("begins");
    std::fflush(stdout);
    deed->second();
    std::puts("survived");
    return 0;
}
