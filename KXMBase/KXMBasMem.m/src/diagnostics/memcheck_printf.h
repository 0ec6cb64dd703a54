// The print routine of a memory-checking tool, as it was found at load; not used afterwards.
#pragma once

using MemCheckPrintf = int (*)(const char*, ...);
extern MemCheckPrintf memCheckPrintf;
