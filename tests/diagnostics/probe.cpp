// Started by the tests: what is decided at load, and what ends a process. The name is short, because
// twenty lines with a longer one would not fit into a text.
#include "KXMBasMem.h"

#include "platform/os.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

extern "C" {

volatile int one = 1;

KXM_NEVER_INLINE int f(int frames) {
    if (frames > 0) {
        return f(frames - 1) + one;
    }
    const KXMBasCallStack callstack(7, nullptr);
    const std::string text = callstack.CStr();
    std::printf("%d %d %d\n", KXMBasCallStack::GetDepthSetting(), callstack.Available(),
                static_cast<int>(std::count(text.begin(), text.end(), '\n')));
    callstack.DeleteCStr(callstack.CStr());
    return 0;
}
}

namespace {

void fault(void*) {
    static_cast<void>(os::read_word_unchecked(reinterpret_cast<void*>(8)));
}

std::atomic<bool> inside{false};

void path() {
    const char* const before = std::getenv("PATH");
    const std::size_t length = std::strlen(before);
    const bool loaded = KXMBasMemDebug::LoadDBHELP() != nullptr;
    std::printf("%s, %s\n", loaded ? "loaded" : "not loaded",
                std::strlen(std::getenv("PATH")) < length ? "cut" : "whole");
}

} // namespace

int main(int, char** arguments) {
    const std::string mode = arguments[1];
    if (mode == "depth") {
        f(30);
    } else if (mode == "path") {
        path();
    } else if (mode == "fault-after-guard") {
        os::guarded_call(fault, nullptr);
        fault(nullptr);
    } else if (mode == "fault-beside-guard") {
        std::thread([] {
            os::guarded_call(
                [](void*) {
                    inside = true;
                    std::this_thread::sleep_for(std::chrono::seconds(20));
                },
                nullptr);
        }).detach();
        while (!inside) {
            std::this_thread::yield();
        }
        fault(nullptr);
    } else if (mode == "error01") {
        KXMBasMemError01();
    } else if (mode == "error02") {
        KXMBasMemError02();
    } else if (mode == "error03") {
        try {
            KXMBasMemError03();
        } catch (const omi_FatalError& error) {
            std::printf("%s %d\n", error.text, error.code);
        }
    }
    return 0;
}
