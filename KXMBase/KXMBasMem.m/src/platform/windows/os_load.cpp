// Loading and unloading on Windows: the system calls DllMain itself, after the library's statics
// were built and before they go, so there is nothing left to do.
#include "platform/os.h"

namespace os {

LibraryLifetime::LibraryLifetime() = default;
LibraryLifetime::~LibraryLifetime() {}

} // namespace os
