// Allocator handles and their base, and the operators that draw from the process-wide pool.
#include "KXMBasAllocator.h"

#include <new>

#include "KX0CORE.h"
#include "KXMBasMemPool.h"
#include "objects/operator_new_loop.h"
#include "platform/compiler.h"

static_assert(sizeof(KXMBasAllocator) == sizeof(void*) && sizeof(KXMBasAllocatorBase) == 16);

namespace {

using operator_new::Without_handler;

// No report here: operator new's loop is the one that tells of refusals.
template <Without_handler end> void* from_pool(std::size_t size) {
    for (;;) {
        if (void* const ptr = operatorNewPool.Alloc(size)) [[likely]] {
            return ptr;
        }
        if (!operator_new::call_handler() && end == Without_handler::throws) {
            throw std::bad_alloc();
        }
    }
}

} // namespace

KXMBasAllocatorBase::~KXMBasAllocatorBase() {}

KXM_NEVER_INLINE bool KXMBasAllocator::ReportNull() {
    KXTFatalError("AssertionFailed:0 != mBase", nullptr, nullptr, nullptr, "KXMBasAllocator",
                  __LINE__);
    return false;
}

void* mem_trackingNew(std::size_t size, const char*) {
    return from_pool<Without_handler::throws>(size);
}

// Spins where there is no handler, instead of the null that its name suggests: its callers rely on a
// result.
void* mem_trackingNewNoThrow(std::size_t size, const char*) {
    return from_pool<Without_handler::retries>(size);
}

void mem_trackingDelete(void* ptr, const char*) {
    operatorNewPool.Free(ptr);
}
