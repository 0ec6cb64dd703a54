// The stacks that the library makes for its clients. That of drives stands with its element.
#include "mem_Stack.h"

#include "mem_ErrorBase.h"
#include "mem_String.h"

template class KXMBASMEM_API mem_Stack<mem_ErrorBase>;
template class KXMBASMEM_API mem_Stack<mem_String>;
