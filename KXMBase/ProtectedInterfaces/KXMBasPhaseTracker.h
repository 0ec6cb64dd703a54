// The thread whose phase markers count: the one that loaded the library.
#pragma once

#include <cstdint>

#include "KXMBasMemExport.h"

class KXMBASMEM_API KXMBasPhaseTracker {
private:
    static std::int32_t s_thread0; // the system's number of the loading thread
};
