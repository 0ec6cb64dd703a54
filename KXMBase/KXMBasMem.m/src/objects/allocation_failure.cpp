// See the header.
#include "objects/allocation_failure.h"

#include <cstdarg>
#include <cstdio>
#include <new>

#include "KXMBasCallStack.h"
#include "KXMBasErrorStack.h"
#include "diagnostics/shared_text.h"

namespace allocation_failure {
namespace {

constexpr int depth = 20;

} // namespace

void report_and_throw(Message& message, const char* format, ...) {
    // Whatever goes wrong with the note, what the caller gets is the bad_alloc.
    if (KXMBasErrorStack::Active()) {
        try {
            char text[64]; // every message fits
            std::va_list arguments;
            va_start(arguments, format);
            // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is, in the line above
            std::vsnprintf(text, sizeof text, format, arguments);
            va_end(arguments);
            shared_text::store(message, sizeof message, sizeof message - 1, text);
            KXMBasErrorStack::PushMessage(message);
            const KXMBasCallStack stack(depth, nullptr);
            if (stack.Available()) {
                KXMBasErrorStack::Push(stack.CStr());
                stack.DeleteCStr(stack.CStr());
            }
        } catch (...) {
        }
    }
    throw std::bad_alloc();
}

} // namespace allocation_failure
