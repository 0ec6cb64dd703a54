// The C allocation interface as an object: a second attempt, a note on the error stack, an exception.
#include "mem_Allocator.h"

#include <new>

#include "KXMBasCallStack.h"
#include "KXMBasErrorStack.h"
#include "diagnostics/shared_text.h"
#include "mem_Interface.h"
#include "platform/os.h"

namespace {

enum class Asked { allocation, reallocation };

char s_report[1024]; // one for all threads: two that fail at once may mix their texts

// Whatever goes wrong with the note, what the caller gets is the bad_alloc.
[[noreturn]] KXM_NEVER_INLINE void report_and_throw(Asked asked, std::size_t size) {
    if (KXMBasErrorStack::Active()) {
        try {
            char text[64];
            os::bounded_print(text, sizeof text,
                              asked == Asked::reallocation ? "Requested Reallocation: %llu bytes"
                                                           : "Requested Allocation: %llu bytes",
                              static_cast<unsigned long long>(size));
            shared_text::store(s_report, sizeof s_report, sizeof s_report - 1, text);
            KXMBasErrorStack::PushMessage(s_report);
            const KXMBasCallStack stack(20, nullptr);
            if (stack.Available()) {
                KXMBasErrorStack::Push(stack.CStr());
                stack.DeleteCStr(stack.CStr());
            }
        } catch (...) {
        }
    }
    throw std::bad_alloc();
}

template <typename Request>
KXM_ALWAYS_INLINE void* allocate(mem_Allocator& allocator, Asked asked, std::size_t size,
                                 Request request) {
    if (void* const ptr = request()) [[likely]] {
        return ptr;
    }
    allocator.Purge(size);
    if (void* const ptr = request()) {
        return ptr;
    }
    report_and_throw(asked, size);
}

} // namespace

mem_Allocator::~mem_Allocator() {}

void* mem_Allocator::Calloc(const char*, std::size_t count, std::size_t size) {
    return allocate(*this, Asked::allocation, size, [=] { return mem_Calloc(count, size); });
}

void* mem_Allocator::Malloc(const char*, std::size_t size) {
    return allocate(*this, Asked::allocation, size, [=] { return mem_Malloc(size); });
}

void* mem_Allocator::Realloc(const char*, void* ptr, std::size_t size) {
    return allocate(*this, Asked::reallocation, size, [=] { return mem_Realloc(ptr, size); });
}

void* mem_Allocator::Malign(const char*, std::size_t size, std::size_t alignment) {
    return allocate(*this, Asked::allocation, size, [=] { return mem_Malign(size, alignment); });
}

void mem_Allocator::Free(const char*, void* ptr) {
    mem_Free(ptr);
}

mem_Allocator* mem_Allocator::Copy() const {
    return new mem_Allocator(*this);
}

std::size_t mem_Allocator::Purge(std::size_t) {
    return 0;
}
