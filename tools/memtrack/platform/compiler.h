// What standard C++ cannot say to a compiler.
#pragma once

#if defined(__clang__)
#define MEMTRACK_PRINTF(text, first) __attribute__((format(printf, text, first)))
#elif defined(__GNUC__)
#define MEMTRACK_PRINTF(text, first) __attribute__((format(gnu_printf, text, first)))
#else
#define MEMTRACK_PRINTF(text, first)
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
