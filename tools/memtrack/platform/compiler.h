// What standard C++ cannot say to a compiler.
#pragma once

#if defined(__clang__)
#define MEMTRACK_PRINTF(format, first) __attribute__((format(printf, format, first)))
#elif defined(__GNUC__)
#define MEMTRACK_PRINTF(format, first) __attribute__((format(gnu_printf, format, first)))
#else
#define MEMTRACK_PRINTF(format, first)
#endif

namespace memtrack::platform {

/// Fetches memory that will be written soon.
inline void prefetch(const void* place) {
#if defined(__GNUC__)
    __builtin_prefetch(place, 1);
#else
    (void)place;
#endif
}

} // namespace memtrack::platform
