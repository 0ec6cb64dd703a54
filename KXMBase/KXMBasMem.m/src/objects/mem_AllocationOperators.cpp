// The operator new entries for classes larger than 128 bytes and for built-in types.
#include "mem_AllocationOperators.h"

#include "objects/operator_new_loop.h"

namespace {

using operator_new::Checked;
using operator_new::Without_handler;

operator_new::SizeCheck s_checkThrow = operator_new::check_unread;
operator_new::SizeCheck s_checkNoThrow = operator_new::check_unread;

void* allocate_builtin(std::size_t size) {
    return mem_Malloc(size != 0 ? size : 1);
}

} // namespace

void* mem_OperatorNewThrow(std::size_t size) {
    return operator_new::checked_loop<Checked::large, Without_handler::throws>(size, s_checkThrow);
}

void* mem_OperatorNewNoThrow(std::size_t size, const std::nothrow_t&) {
    return operator_new::checked_loop<Checked::large, Without_handler::retries>(size,
                                                                                s_checkNoThrow);
}

void* mem_OperatorNewThrowBuiltin(std::size_t size) {
    return operator_new::loop<Without_handler::throws>(size, allocate_builtin);
}

void* mem_OperatorNewNoThrowBuiltin(std::size_t size) {
    return operator_new::loop<Without_handler::retries>(size, allocate_builtin);
}

void* operator new[](std::size_t size, mem_BuiltInAlloc) {
    return mem_OperatorNewThrowBuiltin(size);
}

void operator delete[](void* ptr, mem_BuiltInAlloc) noexcept {
    mem_Free(ptr);
}

void mem_deleteBuiltIn(char* ptr) {
    mem_Free(ptr);
}

void* mem_AllocationOperators::operator new(std::size_t size) {
    return mem_OperatorNewThrow(size);
}

void mem_AllocationOperators::operator delete(void* ptr) {
    mem_Free(ptr);
}
