// Where tests refuse the pool a page or its lock an event. In the library that is shipped there is
// nothing here.
#pragma once

#include "heap/mem_mlock.h"

namespace tiny::test_seam {

#if defined(KXM_TEST_SEAMS)
/// Asked before each page that is to be made, if not null; false refuses it.
extern bool (*page_hook)();
extern bool refuse_events;

inline bool page_granted() {
    return page_hook == nullptr || page_hook();
}
inline os::Event event_of(mem_mlock& lock) {
    return refuse_events ? nullptr : mem_mlock_event(lock);
}
#else
constexpr bool page_granted() {
    return true;
}
inline os::Event event_of(mem_mlock& lock) {
    return mem_mlock_event(lock);
}
#endif

} // namespace tiny::test_seam
