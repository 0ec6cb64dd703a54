// How long the library takes to load and start, and to stop and unload: opened and closed again and
// again, beside the foundation library alone, which costs what any small library costs.
#include "measure.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace {

std::function<void(std::size_t)> load_and_unload(const char* name) {
    return [name](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            void* const handle = dlopen(name, RTLD_NOW);
            if (handle == nullptr) {
                std::fprintf(stderr, "bench_load: %s\n", dlerror());
                std::exit(1);
            }
            dlclose(handle);
        }
    };
}

} // namespace

int main() {
    const std::vector<double> ns = bench::measure(
        {{"small", load_and_unload(KXM_FOUNDATION)}, {"library", load_and_unload(KXM_LIBRARY)}});
    std::puts("Load, start, stop and unload, microseconds (medians)\n");
    std::printf("a small library        %8.1f\n", ns[0] / 1000);
    std::printf("this library with it   %8.1f   ratio %.2f\n", ns[1] / 1000, ns[1] / ns[0]);
    return 0;
}
