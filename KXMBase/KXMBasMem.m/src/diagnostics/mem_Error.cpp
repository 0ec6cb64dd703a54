// See mem_Error.h.
#include "mem_Error.h"

#include <cstdio>

mem_Error::mem_Error() = default;
mem_Error::mem_Error(mem_Error const& other) = default;
mem_Error& mem_Error::operator=(mem_Error const& other) = default;
mem_Error::~mem_Error() = default;

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is given
void mem_Error::AddError(int errorType, mem_String errorString) {
    errors.push(mem_ErrorBase(errorType, errorString));
}

void mem_Error::ClearErrors() {
    errors.ClearStack();
}

mem_Stack<mem_ErrorBase> mem_Error::GetErrors(int level) {
    mem_Stack<mem_ErrorBase> rest(errors);
    mem_Stack<mem_ErrorBase> selected;
    for (mem_ErrorBase record = rest.pop(); record.IsValid(); record = rest.pop()) {
        if (record.GetErrorType() <= level) {
            selected.push(record);
        }
    }
    return selected;
}

void mem_Error::PrintErrors(int level) const {
    mem_Stack<mem_ErrorBase> selected = mem_Error(*this).GetErrors(level);
    for (mem_ErrorBase record = selected.pop(); record.IsValid(); record = selected.pop()) {
        const mem_String type = record.GetErrorTypeText();
        const mem_String text = record.GetErrorString();
        char const* const shown = text;
        std::printf("%s: %s\n", static_cast<char const*>(type),
                    shown != nullptr ? shown : "(null)");
        std::fflush(nullptr);
    }
}
