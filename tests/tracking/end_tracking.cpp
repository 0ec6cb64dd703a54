// The end of tracking, which is C++ alone.
#include "KXMBasMem.h"
#include "kxm_utf8_names.h"

extern "C" void end_tracking() {
    kxm::register_utf8_names();
    mem_ThreadId::Finalize();
    mem_Tracker::Finalize();
}
