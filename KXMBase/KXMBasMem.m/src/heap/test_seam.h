// Where tests stand between the heap and the system: they count its requests and refuse some. In
// the library that is shipped there is nothing here.
#pragma once

#include <cstddef>

#include "platform/os.h"

namespace heap::test_seam {

#if defined(KXM_TEST_SEAMS)
/// Asked instead of the system, if not null.
extern void* (*supply_hook)(std::size_t size, os::Placement placement);
/// Asked before each release to the system; false makes it fail.
extern bool (*release_hook)(void* ptr, std::size_t size);

inline void* allocate(std::size_t size, os::Placement placement) {
    return supply_hook == nullptr ? os::vm_allocate(size, placement) : supply_hook(size, placement);
}
inline bool releasable(void* ptr, std::size_t size) {
    return release_hook == nullptr || release_hook(ptr, size);
}
#else
inline void* allocate(std::size_t size, os::Placement placement) {
    return os::vm_allocate(size, placement);
}
constexpr bool releasable(void*, std::size_t) {
    return true;
}
#endif

} // namespace heap::test_seam
