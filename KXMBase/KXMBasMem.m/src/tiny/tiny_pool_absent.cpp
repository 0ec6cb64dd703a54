// Stands for the tiny block pool until it is built: its switches stay off, so no request gets here.
#include "frame/seam_tiny_pool.h"

#include "KX0CORE.h"

namespace tiny_seam {
namespace {

void unreachable_request(int line) {
    KXTFatalError("AssertionFailed:!mem_tinyBlocksUsed", nullptr, nullptr, nullptr,
                  "tiny_pool_absent", line);
}

} // namespace

void* alloc(std::size_t) {
    unreachable_request(__LINE__);
    return nullptr;
}

void* realloc(void*, std::size_t) {
    unreachable_request(__LINE__);
    return nullptr;
}

void free(void*) {
    unreachable_request(__LINE__);
}

} // namespace tiny_seam
