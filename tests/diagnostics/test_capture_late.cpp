// Libraries that come and go between captures are known all the same.
#include "capture_text.h"
#include "child.h"
#include "frames.h"

#include <dlfcn.h>

namespace {

std::optional<std::string> captured;

int capture(int) {
    captured = test::taken(KXMBasCallStack(20, nullptr).CStr());
    return 1;
}

TEST(Capture, KnowsALibraryThatIsLoadedLate) {
    capture(0);
    for (int i = 0; i < 2; ++i) {
        void* const library =
            dlopen((test::program_folder() + "kxm_late.so").c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        reinterpret_cast<int (*)(Callback, int)>(dlsym(library, "frames_in_library"))(capture, 1);
        EXPECT_NE(captured->find("  2)  kxm_late.so                 frames_in_library         "
                                 "                frames_library.cpp (6)\n"),
                  std::string::npos)
            << *captured;
        dlclose(library);
    }
}

} // namespace
