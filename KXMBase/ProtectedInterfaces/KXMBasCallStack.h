// The frame limit of call stacks, as the environment sets it.
#pragma once

#include "KXMBasMemExport.h"

/// KXA_CALLSTACK_DEPTH through atoi, or 20 when it is not set. The library asks once, at load;
/// later changes of the environment have no effect on it.
KXMBASMEM_API int GetCallStackDepth();
