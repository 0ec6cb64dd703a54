// A shell on purpose: to implement these operations is not wanted. Their reports carry the lines that
// they have always carried.
#include "KXMBasMemFixedPoolAllocator.h"

#include "platform/os.h"

namespace {

// What stands behind a call of it is for an assertion that returns.
void not_implemented(unsigned line) {
    os::assertion_failed("\"not implemented\" == 0", "KXMBasMemFixedPoolAllocator", line);
}

} // namespace

KXMBasMemFixedPoolAllocator::KXMBasMemFixedPoolAllocator(std::size_t size)
    : KXMBasMemFixedPoolAllocator(size, nullptr) {}

KXMBasMemFixedPoolAllocator::KXMBasMemFixedPoolAllocator(std::size_t size, void* buffer)
    : m_poolSize(size), m_poolBuffer(buffer), m_poolUsed(0) {
    static_cast<void>(m_poolSize); // kept, and read by nothing
    static_cast<void>(m_poolBuffer);
    static_cast<void>(m_poolUsed);
}

KXMBasMemFixedPoolAllocator::~KXMBasMemFixedPoolAllocator() {}

void* KXMBasMemFixedPoolAllocator::allocate(std::size_t, const void*) {
    not_implemented(36);
    return nullptr;
}

void KXMBasMemFixedPoolAllocator::deallocate(void*, std::size_t) {
    not_implemented(42);
}

void* KXMBasMemFixedPoolAllocator::Alloc(std::size_t) {
    not_implemented(47);
    return nullptr;
}

void* KXMBasMemFixedPoolAllocator::Alloc(std::size_t, std::size_t&) {
    not_implemented(53);
    return nullptr;
}

void KXMBasMemFixedPoolAllocator::Free(void*) {
    not_implemented(59);
}

const KXMBasAllocator&
KXMBasMemFixedPoolAllocator::LargeBlockAllocator(const KXMBasAllocator& self) const {
    not_implemented(65);
    return self;
}
