// The two switches between the C allocation interface and the tiny block pool. Plain words, read on
// every request with no ordering; the pool's own switches set them.
#pragma once

#include "platform/relaxed_word.h"

extern os::relaxed_word<bool>
    mem_tinyBlocksOn; ///< new requests of at most 128 bytes go to the pool
extern os::relaxed_word<bool>
    mem_tinyBlocksUsed; ///< a latch: released pointers must be tested for the pool's tag
