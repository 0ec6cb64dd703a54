// The version, as the build's project line states it.
#include "KXMBasMemVersion.h"

const char* KXMBasMemVersion() {
    return KXMBASMEM_VERSION;
}
