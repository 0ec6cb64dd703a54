// What the frame calls of this room; nothing else, so that a test can bring its own.
#include "frame/seam_tracker.h"

#include "mem_ThreadId.h"

namespace tracker_seam {

Use check_for_tracking() {
    return mem_Tracker::CheckForTracking();
}

Use check_use_flag() {
    return mem_Tracker::CheckUseFlag();
}

void start_thread_identity() {
    mem_ThreadId::Instance();
}

void malloc_call(void* result, std::size_t size) {
    mem_Tracker::Instance().MallocCall(result, size);
}

void calloc_call(void* result, std::size_t count, std::size_t size) {
    mem_Tracker::Instance().CallocCall(result, count, size);
}

void realloc_call(void* result, void* old, std::size_t size) {
    mem_Tracker::Instance().ReallocCall(result, old, size);
}

void free_call(void* ptr) {
    mem_Tracker::Instance().FreeCall(ptr);
}

void release_call(void* ptr) {
    mem_Tracker::Instance().ReleaseCall(ptr);
}

void acquire_call(void* ptr) {
    mem_Tracker::Instance().AcquireCall(ptr);
}

// A hook may number its thread, so the tracker's lock comes first.
void lock_for_fork() {
    mem_Tracker::LockForFork();
    mem_ThreadId::LockForFork();
}

void unlock_in_parent() {
    mem_ThreadId::UnlockAfterFork(false);
    mem_Tracker::UnlockAfterFork(false);
}

void renew_in_child() {
    mem_ThreadId::UnlockAfterFork(true);
    mem_Tracker::UnlockAfterFork(true);
}

} // namespace tracker_seam
