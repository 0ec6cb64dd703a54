// What the operator new entries do when a request does not simply succeed.
#include "objects/operator_new_loop.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KX0CORE.h"

namespace operator_new {
namespace {

[[noreturn]] void wrong_class(Checked entry) {
    std::fputs(entry == Checked::tiny ? "KESTRIX class with sizeof(class) > 128 should use "
                                      : "KESTRIX class with sizeof(class) < 129 should use ",
               stderr);
    // The same for both, although the tiny entries' callers do use it already: kept so.
    std::fputs("mem_AllocationOperatorsTiny\n", stderr);
    std::abort();
}

} // namespace

std::int32_t read_size_check() {
    const char* const value = std::getenv("KXQ_DEBUG_MEMSIZE");
    return value != nullptr && std::strncmp(value, "ON", 2) == 0 ? check_on : check_off;
}

void* allocate_checked(std::size_t size, Checked entry) {
    if (size == 0) {
        // The invariant tests its own text, so it always holds: kept so. The request then goes the
        // way of one that was refused.
        const char* const text = "Allocating class of size 0";
        if (text == nullptr) {
            KXTFatalError(text, nullptr, nullptr, nullptr, "mem_AllocationOperators", __LINE__);
        }
        return nullptr;
    }
    if ((size > tiny_limit) != (entry == Checked::large)) {
        wrong_class(entry);
    }
    return mem_Malloc(size);
}

int begin_report(std::size_t size) {
    const int depth = KXMBasCallStack::GetDepthSetting();
    if (depth == 0) {
        return 0;
    }
    std::fputs("\n*** Error: memory allocation request failed ***\n", stderr);
    std::fprintf(stderr, "Allocation request: %llu bytes\n", static_cast<unsigned long long>(size));
    std::fprintf(stderr, "Current footprint:  %llu MB\n",
                 static_cast<unsigned long long>(mem_FootprintFromResources() / 1024));
    return depth;
}

void end_report(const KXMBasCallStack& stack) {
    // Deliberately not the stream of the rest. What the process does next may keep it from its last
    // flush.
    std::printf("Current callstack:\n");
    std::printf("%s\n", stack.CStr() != nullptr ? stack.CStr() : "(null)");
    std::fflush(stdout);
    stack.DeleteCStr(stack.CStr()); // a loop of failures must not eat what memory there is
}

bool call_handler() {
    // Read, not taken away and put back, so that no other thread meets a moment without a handler.
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) {
        return false;
    }
    handler();
    return true;
}

} // namespace operator_new
