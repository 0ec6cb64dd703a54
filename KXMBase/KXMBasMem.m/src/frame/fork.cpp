// Takes the library's locks ahead of a fork, in the order in which a thread may hold several: tracker,
// tiny pool, heap, the table of mappings. Then no other thread is in the midst of anything that they
// guard, and its copy in the child is whole. The parent gives them back; the child makes them anew, since
// a lock may count waiters that the child does not have.
#include "frame/fork.h"

#include "KXMBasPhaseTracker.h"
#include "frame/seam_tiny_pool.h"
#include "frame/seam_tracker.h"
#include "heap/malloc_params.h"
#include "platform/os.h"

namespace forking {
namespace {

bool by_first_thread = false;

void before() {
    by_first_thread = KXMBasPhaseTracker::IsFirstThread();
    tracker_seam::lock_for_fork();
    tiny_seam::lock_for_fork();
    heap::lock_for_fork();
    os::lock_for_fork();
}

void in_parent() {
    os::unlock_in_parent();
    heap::unlock_in_parent();
    tiny_seam::unlock_in_parent();
    tracker_seam::unlock_in_parent();
}

void in_child() {
    os::renew_in_child();
    heap::renew_in_child();
    tiny_seam::renew_in_child();
    tracker_seam::renew_in_child();
    if (by_first_thread) {
        KXMBasPhaseTracker::BecomeFirstThread();
    }
}

} // namespace

void watch() {
    static bool watching = false;
    if (!watching) {
        watching = true;
        os::at_fork(before, in_parent, in_child);
    }
}

} // namespace forking
