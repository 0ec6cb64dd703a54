// A second component beside the test program.
#pragma once

#include "KXMBasMem.h"

#if defined(_WIN32)
#if defined(kxm_component_EXPORTS)
#define COMPONENT_API __declspec(dllexport)
#else
#define COMPONENT_API __declspec(dllimport)
#endif
#else
#define COMPONENT_API __attribute__((visibility("default")))
#endif

/// The named pool of this number, made if need be, as the component finds it.
COMPONENT_API KXMBasMemPool* pools_of_component(int id);
COMPONENT_API void end_map_of_component();
