// Where the frame calls up into tracking/: the gate's flag and the hooks behind it. Each forwards to
// the member of mem_Tracker of that name.
#pragma once

#include <cstddef>

#include "mem_Tracker.h"

namespace tracker_seam {

/// The tracking decision.
using Use = mem_Tracker::UseEnm;
inline constexpr Use unknown = mem_Tracker::e_useUnknown;
inline constexpr Use off = mem_Tracker::e_useOff;
inline constexpr Use on = mem_Tracker::e_useOn;
inline constexpr Use finished = mem_Tracker::e_useFinished;

Use check_for_tracking(); ///< takes the decision, once per process
Use check_use_flag();     ///< the decision as it stands, without taking it

/// Gives the calling thread its tracking number. pre: tracking is on.
void start_thread_identity();

// The hooks. pre: tracking is on. A failed allocation is told too, as a null result.
void malloc_call(void* result, std::size_t size);
void calloc_call(void* result, std::size_t count, std::size_t size);
void realloc_call(void* result, void* old, std::size_t size);
void free_call(void* ptr);
void release_call(void* ptr);
void acquire_call(void* ptr);

// Around a fork: the locks of tracker and thread numbers.
void lock_for_fork();
void unlock_in_parent();
void renew_in_child();

} // namespace tracker_seam
