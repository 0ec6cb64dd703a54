// What thread identity calls of this room.
#include "diagnostics/seam_thread_numbers.h"

#include "mem_Tracker.h"

namespace thread_number_seam {

int next() {
    return mem_Tracker::Instance().AddThread();
}

bool tracking_on() {
    return mem_Tracker::CheckForTracking() == mem_Tracker::e_useOn;
}

} // namespace thread_number_seam
