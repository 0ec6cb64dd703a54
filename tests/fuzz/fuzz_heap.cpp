// A fuzzer makes histories of the heap; each runs against the shadow model under the walker.
#include <cstdio>
#include <cstdlib>

#include "heap_operations.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string fault = test::run_heap_operations(data, size);
    if (!fault.empty()) {
        std::fprintf(stderr, "heap: %s\n", fault.c_str());
        std::abort();
    }
    return 0;
}
