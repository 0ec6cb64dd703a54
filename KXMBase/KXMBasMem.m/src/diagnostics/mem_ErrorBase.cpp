// See mem_ErrorBase.h.
#include "mem_ErrorBase.h"

#include <cstdio>

namespace {

constexpr char const* type_texts[] = {"Error", "Warning", "Info", "Debug"};

bool is_known(int type) {
    return type >= 0 && type < static_cast<int>(sizeof type_texts / sizeof *type_texts);
}

} // namespace

mem_ErrorBase::mem_ErrorBase() : errorType(0), errorString(), valid(false) {}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is given
mem_ErrorBase::mem_ErrorBase(int type, mem_String text)
    : errorType(type), errorString(text), valid(true) {
    if (!is_known(type)) {
        std::fputs("Invalid use of function mem_ErrorBase(). Invalid errorType. "
                   "Will default errorType to mem_Error.\n",
                   stderr);
        std::fflush(nullptr);
        errorType = 0;
    }
}

mem_ErrorBase::mem_ErrorBase(mem_ErrorBase const& other) = default;

mem_ErrorBase& mem_ErrorBase::operator=(mem_ErrorBase const& other) = default;

mem_String mem_ErrorBase::GetErrorTypeText() {
    if (is_known(errorType)) {
        return type_texts[errorType];
    }
    std::fprintf(stderr,
                 "Internal error with mem_ErrorBase::GetErrorTypeText(). Unknown error type %d. "
                 "Defaulting error type to 'Error'.\n",
                 errorType);
    std::fflush(nullptr);
    return type_texts[0];
}

bool mem_ErrorBase::operator==(mem_ErrorBase const& other) const {
    return errorType == other.errorType && errorString == other.errorString;
}

bool mem_ErrorBase::operator!=(mem_ErrorBase const& other) const {
    return !(*this == other);
}
