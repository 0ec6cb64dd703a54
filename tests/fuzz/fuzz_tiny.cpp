// A fuzzer makes histories of the tiny block pool; each runs against the shadow model.
#include <cstdio>
#include <cstdlib>

#include "pool_fixture.h"
#include "pool_operations.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const test::HeapBound heap;
    const std::string fault = test::run_pool_operations(data, size);
    if (!fault.empty()) {
        std::fprintf(stderr, "tiny pool: %s\n", fault.c_str());
        std::abort();
    }
    return 0;
}
