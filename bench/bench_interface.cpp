// What the C allocation interface costs over the C runtime, and operator new over the interface: the
// same pairs of allocate and free, called directly, through mem_Malloc and mem_Free on the C runtime
// back end, and through the operator new entries.
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

void interface_over_runtime() {
    std::puts("Allocate and free one block, ns a pair (medians); two calls a pair\n");
    std::puts("     bytes   direct   through the library   ratio   added per call");
    for (std::size_t size = 16; size <= 1U << 20; size *= 4) {
        const std::vector<double> ns =
            bench::measure({{"direct", pairs<std::malloc, std::free>(size)},
                            {"library", pairs<mem_Malloc, mem_Free>(size)}});
        std::printf("%10zu %8.2f %21.2f %7.2f %13.2f ns\n", size, ns[0], ns[1], ns[1] / ns[0],
                    (ns[1] - ns[0]) / 2);
    }
}

void operator_new_over_interface() {
    std::puts("\nThe same through operator new, freed by mem_Free; one call of it a pair\n");
    std::puts("     bytes  mem_Malloc  mem_OperatorNewThrow    added  ...ThrowBuiltin    added");
    for (std::size_t size = 160; size <= 160U << 8; size *= 4) {
        const std::vector<double> ns =
            bench::measure({{"malloc", pairs<mem_Malloc, mem_Free>(size)},
                            {"new", pairs<mem_OperatorNewThrow, mem_Free>(size)},
                            {"builtin", pairs<mem_OperatorNewThrowBuiltin, mem_Free>(size)}});
        std::printf("%10zu %11.2f %21.2f %5.2f ns %16.2f %5.2f ns\n", size, ns[0], ns[1],
                    ns[1] - ns[0], ns[2], ns[2] - ns[0]);
    }
}

} // namespace

int main() {
    if (mem_usingDL() != 0) {
        std::fputs("bench_interface: unset KXQ_DLALLOCATOR; this measures the C runtime back end\n",
                   stderr);
        return 2;
    }
    interface_over_runtime();
    operator_new_over_interface();
    return 0;
}
