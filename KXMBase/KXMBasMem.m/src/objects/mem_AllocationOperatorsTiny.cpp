// The operator new entries for classes of at most 128 bytes.
#include "mem_AllocationOperatorsTiny.h"

#include "objects/operator_new_loop.h"

namespace {

using operator_new::Checked;
using operator_new::Without_handler;

operator_new::SizeCheck s_checkThrow = operator_new::check_unread;
operator_new::SizeCheck s_checkNoThrow = operator_new::check_unread;

} // namespace

void* mem_OperatorNewTinyThrow(std::size_t size) {
    return operator_new::checked_loop<Checked::tiny, Without_handler::throws>(size, s_checkThrow);
}

void* mem_OperatorNewTinyNoThrow(std::size_t size, const std::nothrow_t&) {
    return operator_new::checked_loop<Checked::tiny, Without_handler::retries>(size,
                                                                               s_checkNoThrow);
}

void* mem_AllocationOperatorsTiny::operator new(std::size_t size) {
    return mem_OperatorNewTinyThrow(size);
}

void mem_AllocationOperatorsTiny::operator delete(void* ptr) {
    mem_Free(ptr);
}
