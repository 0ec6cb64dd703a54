// The frame limit of call stacks that the environment gave at load.
#pragma once

#include <cstdint>

extern std::int32_t s_callStackDepth;
