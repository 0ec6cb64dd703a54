// Events, critical sections, thread-local slots and thread numbers on Windows.
#include "platform/os.h"

#include <new>
#include <windows.h>

namespace os {
namespace {

CRITICAL_SECTION* native(CriticalSection& section) {
    static_assert(sizeof(CRITICAL_SECTION) <= sizeof(CriticalSection));
    return std::launder(reinterpret_cast<CRITICAL_SECTION*>(section.storage));
}

} // namespace

Event event_create() {
    const KeptError kept; // which a success clears
    return CreateEventW(nullptr, FALSE, FALSE, nullptr);
}

bool event_wait(Event event) {
    return WaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0;
}

bool event_set(Event event) {
    return SetEvent(event) != 0;
}

void event_close(Event event) {
    CloseHandle(event);
}

void critical_section_init(CriticalSection& section) {
    InitializeCriticalSection(new (section.storage) CRITICAL_SECTION);
}

void critical_section_delete(CriticalSection& section) {
    DeleteCriticalSection(native(section));
}

void critical_section_enter(CriticalSection& section) {
    EnterCriticalSection(native(section));
}

bool critical_section_try_enter(CriticalSection& section) {
    return TryEnterCriticalSection(native(section)) != 0;
}

void critical_section_leave(CriticalSection& section) {
    LeaveCriticalSection(native(section));
}

// The system may hand out index 0; slots are one higher.
int tls_alloc() {
    const DWORD index = TlsAlloc();
    return index == TLS_OUT_OF_INDEXES ? -1 : static_cast<int>(index) + 1;
}

void tls_free(int slot) {
    TlsFree(static_cast<DWORD>(slot - 1));
}

void* tls_get(int slot) {
    const KeptError kept; // which a success clears
    return TlsGetValue(static_cast<DWORD>(slot - 1));
}

void tls_set(int slot, void* value) {
    TlsSetValue(static_cast<DWORD>(slot - 1), value);
}

std::uint32_t thread_id() {
    return GetCurrentThreadId();
}

void at_fork(void (*)(), void (*)(), void (*)()) {} // processes are not copied here
void lock_for_fork() {}
void unlock_in_parent() {}
void renew_in_child() {}

// The system does not say.
static const char never_certain = 0;
const char* const single_threaded_word = &never_certain;

} // namespace os
