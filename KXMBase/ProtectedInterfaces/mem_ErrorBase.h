// One message with its severity: 0 "Error", 1 "Warning", 2 "Info", 3 "Debug". Not thread-safe.
#pragma once

#include <cstdint>

#include "KXMBasMemExport.h"
#include "mem_String.h"

class KXMBASMEM_API mem_ErrorBase {
public:
    mem_ErrorBase(); ///< an error with no text, not valid
    /// A type outside 0 to 3 is told of on standard error and becomes 0.
    mem_ErrorBase(int errorType, mem_String errorString);
    mem_ErrorBase(mem_ErrorBase const& other);
    mem_ErrorBase& operator=(mem_ErrorBase const& other);

    bool IsValid() const { return valid; } ///< built from a type and a text
    mem_String GetErrorString() { return errorString; }
    int GetErrorType() const { return errorType; }
    mem_String GetErrorTypeText();

    // By type and text; an invalid record may equal a valid one.
    bool operator==(mem_ErrorBase const& other) const;
    bool operator!=(mem_ErrorBase const& other) const;

private:
    std::int32_t errorType;
    mem_String errorString;
    bool valid;
};
