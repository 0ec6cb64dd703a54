// See system.h.
#include "system.h"

#include "child.h"

#include "platform/os.h"

#include <windows.h>

namespace test {
namespace {

void (*seen_by)(void*) = nullptr;
thread_local bool filtering = false; // faults of the filter's own are no business of ours

LONG CALLBACK on_exception(EXCEPTION_POINTERS* pointers) {
    if (!filtering) {
        filtering = true;
        CONTEXT context = *pointers->ContextRecord;
        EXCEPTION_POINTERS copy{pointers->ExceptionRecord, &context};
        seen_by(&copy);
        filtering = false;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

void run(void* work) {
    (*static_cast<void (**)()>(work))();
}

} // namespace

bool with_fault(void (*work)(), void (*filter)(void*)) {
    seen_by = filter;
    void* const handler = AddVectoredExceptionHandler(1, on_exception);
    const bool faulted = !os::guarded_call(run, &work);
    RemoveVectoredExceptionHandler(handler);
    return faulted;
}

void set_position(void* exception_pointers, std::uint64_t instruction, std::uint64_t stack) {
    CONTEXT& context = *static_cast<EXCEPTION_POINTERS*>(exception_pointers)->ContextRecord;
    context.Rip = instruction;
    context.Rsp = context.Rbp = stack;
}

void* load_library(const char* name) {
    return LoadLibraryA((program_folder() + name + ".dll").c_str());
}

void* library_function(void* library, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void unload_library(void* library) {
    FreeLibrary(static_cast<HMODULE>(library));
}

} // namespace test
