// See mem_ThrLock.h. The status is set after entering and before leaving, so that only a thread that
// holds the lock writes it; TryLock reads it without, and at worst fails once more than it must.
#include "mem_ThrLock.h"

#include "mem_BoundFunctions.h"
#include "platform/os.h"
#include "platform/relaxed_word.h"

namespace {

os::CriticalSection& section_in(unsigned char* storage) {
    return *reinterpret_cast<os::CriticalSection*>(storage);
}

} // namespace

mem_ThrLock::mem_ThrLock(mem_ThrLockStatus initial) : m_section(), status(initial) {
    static_assert(sizeof m_section >= sizeof(os::CriticalSection));
    static_assert(alignof(mem_ThrLock) >= alignof(os::CriticalSection));
    static_assert(sizeof(mem_ThrLockStatus) == 4);
    os::critical_section_init(section_in(m_section));
    if (initial == mem_ThrLocked) {
        Lock();
    }
}

mem_ThrLock::~mem_ThrLock() {
    os::critical_section_delete(section_in(m_section));
}

void mem_ThrLock::Lock() {
    os::critical_section_enter(section_in(m_section));
    os::relaxed_write(status, mem_ThrLocked);
}

void mem_ThrLock::Unlock() {
    os::relaxed_write(status, mem_ThrUnlocked);
    os::critical_section_leave(section_in(m_section));
}

int mem_ThrLock::TryLock() {
    if (os::relaxed_read(status) != mem_ThrUnlocked) {
        return 0; // also for the owner, whom the system would let in again
    }
    if (!os::critical_section_try_enter(section_in(m_section))) {
        return 0;
    }
    os::relaxed_write(status, mem_ThrLocked);
    return 1;
}

void mem_ThrLock::RenewAfterFork() {
    os::critical_section_init(
        section_in(m_section)); // its owner's number was that of the parent's thread
    status = mem_ThrUnlocked;
}

void* mem_ThrLock::operator new(std::size_t size) noexcept {
    return mem_malloc(size);
}

void mem_ThrLock::operator delete(void* ptr) {
    mem_free(ptr);
}
