// What the C allocation interface costs over the C runtime: the same pairs of allocate and free,
// called directly and through mem_Malloc and mem_Free on the C runtime back end.
#include "KXMBasMem.h"
#include "measure.h"

#include <cstdio>
#include <cstdlib>

namespace {

template <void* (*Allocate)(std::size_t), void (*Free)(void*)>
std::function<void(std::size_t)> pairs(std::size_t size) {
    return [size](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            void* const block = Allocate(size);
            bench::escape(block);
            Free(block);
        }
    };
}

} // namespace

int main() {
    if (mem_usingDL() != 0) {
        std::fputs("bench_interface: unset KXQ_DLALLOCATOR; this measures the C runtime back end\n",
                   stderr);
        return 2;
    }
    std::puts("Allocate and free one block, ns a pair (medians); two calls a pair\n");
    std::puts("     bytes   direct   through the library   ratio   added per call");
    for (std::size_t size = 16; size <= 1U << 20; size *= 4) {
        const std::vector<double> ns =
            bench::measure({{"direct", pairs<std::malloc, std::free>(size)},
                            {"library", pairs<mem_Malloc, mem_Free>(size)}});
        std::printf("%10zu %8.2f %21.2f %7.2f %13.2f ns\n", size, ns[0], ns[1], ns[1] / ns[0],
                    (ns[1] - ns[0]) / 2);
    }
    return 0;
}
