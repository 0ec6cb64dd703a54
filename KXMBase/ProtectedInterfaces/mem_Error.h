// The messages that an object collected, in the order of their arrival. Not thread-safe.
#pragma once

#include "KXMBasMemExport.h"
#include "mem_ErrorBase.h"
#include "mem_Stack.h"

class KXMBASMEM_API mem_Error {
public:
    mem_Error();
    mem_Error(mem_Error const& other);
    mem_Error& operator=(mem_Error const& other); ///< not to itself
    ~mem_Error();

    void AddError(int errorType, mem_String errorString); ///< types as in mem_ErrorBase
    void ClearErrors();

    /// Those of types 0 to `level`, with the oldest on top. The list stays as it is.
    mem_Stack<mem_ErrorBase> GetErrors(int level);

    /// Prints them on standard output, oldest first, as "<type>: <text>" and flushed.
    void PrintErrors(int level) const;

private:
    mem_Stack<mem_ErrorBase> errors;
};
