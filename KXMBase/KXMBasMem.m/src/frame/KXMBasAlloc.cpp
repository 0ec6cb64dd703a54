// Start and stop of the library, in three counting layers. The counters are plain words: loading
// and unloading run under the system's loader lock, and a client that calls these entries itself
// must not race them.
#include "KXMBasAlloc.h"

#include <cstdint>

#include "frame/fork.h"
#include "frame/mem_Binding.h"
#include "frame/seam_operator_pool.h"
#include "frame/seam_shutdown.h"
#include "frame/seam_tracker.h"
#include "platform/seam_library_entry.h"

namespace {

std::int32_t s_allocRefCount = 0;
std::int32_t s_specificRefCount = 0;
std::int32_t s_memRefCount = 0;
int s_statusC = 0;
int s_statusDll = 0;

// Only the first start works. A stop without a start leaves the counter at -1, and the next start
// then reads that and does nothing either: meant.
bool first_start(std::int32_t& counter) {
    return counter++ == 0;
}

bool last_stop(std::int32_t& counter) {
    return --counter == 0;
}

} // namespace

void KXMBasAlloc_initialize(int& status) {
    if (first_start(s_allocRefCount)) {
        ++status;
        KXMBasMem_initialize(status);
        KXMBasAlloc_specific_initialize(status);
    }
}

void KXMBasAlloc_finalize(int& status) {
    if (last_stop(s_allocRefCount)) {
        --status;
        KXMBasAlloc_specific_finalize(status);
        KXMBasMem_finalize(status);
    }
}

void KXMBasMem_initialize(int& status) {
    if (!first_start(s_memRefCount)) {
        return;
    }
    ++status;
    if (mem_tableUnbound()) {
        mem_chooseBackend();
    }
    if (tracker_seam::check_for_tracking() == tracker_seam::on) {
        tracker_seam::start_thread_identity(); // the loading thread becomes number 0
    }
    operator_pool_seam::activate();
}

void KXMBasMem_finalize(int& status) {
    if (last_stop(s_memRefCount)) {
        --status;
        registry_seam::finalize(); // the table stays bound
    }
}

void KXMBasAlloc_specific_initialize(int& status) {
    if (first_start(s_specificRefCount)) {
        ++status;
    }
}

void KXMBasAlloc_specific_finalize(int& status) {
    if (last_stop(s_specificRefCount)) {
        --status;
    }
}

void KX0CORE_initialize(int&) {}

void KX0CORE_finalize(int&) {}

void KXMBasAlloc_initializeC() {
    KXMBasAlloc_initialize(s_statusC);
}

void KXMBasAlloc_finalizeC() {
    KXMBasAlloc_finalize(s_statusC);
}

void KXMBasMem_formalize() {}

int KESTRIX_WORKS_KCA2_INTERNAL_KXMBasAlloc() {
    return 1;
}

int DllMain(void*, unsigned long reason, void*) {
    constexpr unsigned long process_detach = 0, process_attach = 1;
    if (reason == process_attach) {
        forking::watch();
        KXMBasAlloc_initialize(s_statusDll);
    } else if (reason == process_detach) {
        KXMBasAlloc_finalize(s_statusDll);
    }
    return 1;
}
