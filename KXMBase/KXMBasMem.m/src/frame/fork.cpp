// Takes the library's locks ahead of a fork, in the order in which a thread may hold several: tracker,
// tiny pool, heap, the table of mappings. Then no other thread is in the midst of anything that they
// guard, and its copy in the child is whole. The parent gives them back; the child makes them anew, since
// a lock may count waiters that the child does not have.
//
// A signal handler may fork whose own thread it has interrupted with one of them in its hands: it waits for
// none, and the child's tracker alone begins anew.
#include "frame/fork.h"

#include "KXMBasPhaseTracker.h"
#include "frame/seam_tiny_pool.h"
#include "frame/seam_tracker.h"
#include "heap/malloc_params.h"
#include "platform/os.h"

namespace forking {
namespace {

bool by_first_thread = false;
bool (*interrupted)() = nullptr;

bool may_hold_some() {
    return interrupted != nullptr && interrupted();
}

void before() {
    by_first_thread = KXMBasPhaseTracker::IsFirstThread();
    if (may_hold_some()) {
        return;
    }
    tracker_seam::lock_for_fork();
    tiny_seam::lock_for_fork();
    heap::lock_for_fork();
    os::lock_for_fork();
}

void in_parent() {
    if (may_hold_some()) {
        return;
    }
    os::unlock_in_parent();
    heap::unlock_in_parent();
    tiny_seam::unlock_in_parent();
    tracker_seam::unlock_in_parent();
}

void in_child() {
    if (!may_hold_some()) {
        os::renew_in_child();
        heap::renew_in_child();
        tiny_seam::renew_in_child();
    }
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

void ask_whether_interrupted(bool (*asked)()) {
    interrupted = asked;
}

} // namespace forking
