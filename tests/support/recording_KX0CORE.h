// What the recording foundation library remembers.
#pragma once

#include "KX0CORE.h"

extern "C" {

KX0CORE_API int recorded_fatal_errors();         ///< calls of KXTFatalError so far
KX0CORE_API const char* recorded_fatal_text();   ///< text of the last one
KX0CORE_API const char* recorded_fatal_source(); ///< and the source that it named

/// Called at each of them after it was recorded.
KX0CORE_API void on_recorded_fatal_error(void (*what)());

} // extern "C"
