// Where tests stand between the heap and the system: they count its requests and refuse some. In
// the library that is shipped there is nothing here.
#pragma once

#include <cstddef>

namespace heap::test_seam {

#if defined(KXM_TEST_SEAMS)
/// Asked before each request to the system; false refuses it. Null grants everything.
extern bool (*grant_hook)(std::size_t size);
/// Asked before each release to the system; false makes it fail.
extern bool (*release_hook)(void* ptr, std::size_t size);

inline bool granted(std::size_t size) {
    return grant_hook == nullptr || grant_hook(size);
}
inline bool releasable(void* ptr, std::size_t size) {
    return release_hook == nullptr || release_hook(ptr, size);
}
#else
constexpr bool granted(std::size_t) {
    return true;
}
constexpr bool releasable(void*, std::size_t) {
    return true;
}
#endif

} // namespace heap::test_seam
