// Loading and unloading on Linux. The system runs the library's static constructors and
// destructors but knows no DllMain, so the last static object plays its caller.
#include "platform/os.h"
#include "platform/seam_library_entry.h"

namespace os {

LibraryLifetime::LibraryLifetime() {
    DllMain(nullptr, 1, nullptr);
}

LibraryLifetime::~LibraryLifetime() {
    DllMain(nullptr, 0, nullptr);
}

} // namespace os
