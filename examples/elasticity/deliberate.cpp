// See deliberate.h.
#include "deliberate.h"

#include "memory.h"

#include <KXMBasMem.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace elasticity {

void leave_an_array_behind(std::size_t nodes) {
    auto* const forces = static_cast<double*>(allocate(nodes * sizeof(double), Family::vector));
    std::fill_n(forces, nodes, 0.0); // and forgets it
}

namespace {

// A table of samples in the form that the detector knows: words of 32 bits, of which the sixth and the
// one at ten are its own, and the owner's size in bytes stands between them.
struct Samples {
    static constexpr std::size_t count = 88;
    std::int32_t detector[6];
    std::int32_t bytes;
    std::int32_t spare[3];
    std::int32_t number;
    std::int32_t used;
    std::int32_t value[count];
};
static_assert(offsetof(Samples, bytes) == std::size_t{6} * 4 &&
              offsetof(Samples, number) == std::size_t{10} * 4);
static_assert(offsetof(Samples, value) == std::size_t{12} * 4);

} // namespace

void read_what_was_never_written() {
    KXMBasMemAllocator memory;
    // Not through a handle, whose operations of these names pass the detector by.
    void* const block = memory.allocate(sizeof(Samples), nullptr);
    volatile Samples& samples = *static_cast<Samples*>(block);
    samples.bytes = sizeof(Samples);
    samples.used = Samples::count;
    for (std::size_t i = 0; i < Samples::count; ++i)
        if (i < 20 || i >= 40)
            samples.value[i] = static_cast<std::int32_t>(i);
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < Samples::count; ++i)
        sum += static_cast<std::uint32_t>(samples.value[i]);
    std::printf("\nThe sum of %zu samples, 20 of which nobody wrote, is %u.\n", Samples::count,
                sum);
    std::fflush(stdout);
    memory.deallocate(block, sizeof(Samples));
}

} // namespace elasticity
