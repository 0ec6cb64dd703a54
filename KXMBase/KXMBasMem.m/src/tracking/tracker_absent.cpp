// Stands for the tracker until it is built: tracking is decided as off, whatever the environment
// asks for, so no hook can be reached.
#include "frame/seam_tracker.h"

#include "KX0CORE.h"

namespace tracker_seam {
namespace {

void unreachable_hook(int line) {
    KXTFatalError("AssertionFailed:tracking is off", nullptr, nullptr, nullptr, "tracker_absent",
                  line);
}

} // namespace

Use check_for_tracking() {
    return off;
}

Use check_use_flag() {
    return off;
}

void start_thread_identity() {
    unreachable_hook(__LINE__);
}

void malloc_call(void*, std::size_t) {
    unreachable_hook(__LINE__);
}

void calloc_call(void*, std::size_t, std::size_t) {
    unreachable_hook(__LINE__);
}

void realloc_call(void*, void*, std::size_t) {
    unreachable_hook(__LINE__);
}

void free_call(void*) {
    unreachable_hook(__LINE__);
}

void release_call(void*) {
    unreachable_hook(__LINE__);
}

void acquire_call(void*) {
    unreachable_hook(__LINE__);
}

} // namespace tracker_seam
