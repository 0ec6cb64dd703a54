// See mem_ThreadId.h. The first use of a process sets the class up without a lock: the library makes
// it on the loading thread, before others can come.
#include "mem_ThreadId.h"

#include "KX0CORE.h"
#include "diagnostics/seam_thread_numbers.h"
#include "mem_BoundFunctions.h"
#include "mem_ThrLock.h"
#include "platform/os.h"
#include "platform/relaxed_word.h"

std::int32_t mem_ThreadId::m_instanceTlsIndex = 0;
std::int32_t mem_ThreadId::m_refCount = 0;
mem_ThrLock* mem_ThreadId::m_lock = nullptr;

namespace {

void fatal(const char* text, int line) {
    KXTFatalError(text, nullptr, nullptr, nullptr, "mem_ThreadId", line);
}

} // namespace

mem_ThreadId::mem_ThreadId() : threadId(-1) {
    threadId = thread_number_seam::next();
}

mem_ThreadId& mem_ThreadId::Instance() {
    if (m_lock == nullptr) {
        m_lock = new mem_ThrLock(mem_ThrUnlocked);
        if (m_instanceTlsIndex != 0) {
            fatal("AssertionFailed:m_instanceTlsIndex == 0", 34);
        }
        m_instanceTlsIndex = os::tls_alloc();
        if (m_instanceTlsIndex == 0) { // the mark of a missing slot; no slot has this number
            fatal("AssertionFailed:m_instanceTlsIndex != 0", 36);
        }
    }
    if (void* const present = os::tls_get(m_instanceTlsIndex)) {
        return *static_cast<mem_ThreadId*>(present);
    }
    auto* const created = new mem_ThreadId; // null when memory is short: the caller meets it
    os::tls_set(m_instanceTlsIndex, created);
    m_lock->Lock();
    os::relaxed_write(m_refCount, m_refCount + 1);
    m_lock->Unlock();
    return *created;
}

void mem_ThreadId::Finalize() {
    if (!thread_number_seam::tracking_on()) {
        return;
    }
    if (m_lock == nullptr) {
        return; // no slot either
    }
    auto* const present = static_cast<mem_ThreadId*>(os::tls_get(m_instanceTlsIndex));
    if (present == nullptr) {
        return;
    }
    delete present;
    os::tls_set(m_instanceTlsIndex, nullptr);
    m_lock->Lock();
    const std::int32_t left = m_refCount - 1;
    os::relaxed_write(m_refCount, left);
    m_lock->Unlock();
    // Read again without the lock, for a thread that came in meanwhile. Of several that leave at the
    // same time only the one that took the count to 0 goes on.
    if (left != 0 || os::relaxed_read(m_refCount) != 0) {
        return;
    }
    os::tls_free(m_instanceTlsIndex);
    m_instanceTlsIndex = 0;
    delete m_lock;
    m_lock = nullptr;
}

void mem_ThreadId::LockForFork() {
    if (m_lock != nullptr) {
        m_lock->Lock();
    }
}

void mem_ThreadId::UnlockAfterFork(bool in_child) {
    if (m_lock == nullptr) {
        return;
    }
    if (in_child) {
        m_lock->RenewAfterFork();
    } else {
        m_lock->Unlock();
    }
}

void* mem_ThreadId::operator new(std::size_t size) noexcept {
    return mem_malloc(size);
}

void mem_ThreadId::operator delete(void* ptr) {
    mem_free(ptr);
}
