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

} // namespace tracker_seam
