// See violations.h.
#include "violations.h"

#include "mem_violations.h"

#include <cstdint>

namespace kxmdiag {
namespace {

// The arguments in the wrong order, as a caller without the declaration may pass them.
void mismatched_parameters() {
    void (*volatile function)() = reinterpret_cast<void (*)()>(mem_mismatch_par);
    reinterpret_cast<void (*)(const char*, std::intptr_t)>(function)("a text", 7);
}

} // namespace

const std::vector<Violation>& violations() {
    static const std::vector<Violation> all{
        {"mem_invalid_read01", "reads 4000 bytes behind a block", mem_invalid_read01},
        {"mem_invalid_write01", "writes 40000 bytes behind a block", mem_invalid_write01},
        {"mem_heap_umr1", "reads a block that was never set", mem_heap_umr1},
        {"mem_heap_overwrite1", "writes directly behind a block", mem_heap_overwrite1},
        {"mem_heap_underwrite1", "writes directly in front of a block", mem_heap_underwrite1},
        {"mem_malloc_abr1", "reads directly behind a block", mem_malloc_abr1},
        {"mem_malloc_abw1", "writes zero directly behind a block", mem_malloc_abw1},
        {"mem_stack_umr1", "reads a local variable that was never set", mem_stack_umr1},
        {"mem_stack_overwrite1", "overruns a local array", mem_stack_overwrite1},
        {"mem_stack_overwrite2", "overruns a local array, and shows it", mem_stack_overwrite2},
        {"mem_stack_free", "frees a local variable", mem_stack_free},
        {"mem_bss_free", "frees a zero-initialised static object", mem_bss_free},
        {"mem_static_free", "frees an initialised static object", mem_static_free},
        {"mem_double_free", "frees a block twice", mem_double_free},
        {"mem_misaligned_realloc", "resizes by an address inside a block", mem_misaligned_realloc},
        {"mem_malloc_fim1", "frees an address inside a block", mem_malloc_fim1},
        {"mem_new_fmr1", "reads an object after its delete", mem_new_fmr1},
        {"mem_new_fmw1", "writes to an object after its delete", mem_new_fmw1},
        {"mem_new_ffm1", "deletes an object twice", mem_new_ffm1},
        {"mem_new_fmm1", "frees what new made", mem_new_fmm1},
        {"mem_leak1", "loses a block of 1,000,000 bytes", mem_leak1},
        {"mem_malloc_maf1", "asks for 1 GiB", mem_malloc_maf1},
        {"mem_malloc_nsa1", "asks for 0 bytes", mem_malloc_nsa1},
        {"mem_overlap_bcopy", "memcpy between ranges that overlap", mem_overlap_bcopy},
        {"mem_resize_to_zero", "resizes blocks to 0 bytes", mem_resize_to_zero},
        {"mem_partial_union", "prints unions that were not or partly set", mem_partial_union},
        {"mem_partial_struct", "prints bit fields that were never set", mem_partial_struct},
        {"mem_division_by_zero", "divides 2.0 by 0.0", mem_division_by_zero},
        {"mem_fpe01", "takes the square root of -2", mem_fpe01},
        {"mem_assert", "fails an assertion", mem_assert},
        {"mem_abort", "aborts", mem_abort},
        {"mem_deliberateAbort", "aborts at the end of a chain of calls", mem_deliberateAbort},
        {"mem_function_A", "the chain from its second call on", mem_function_A},
        {"mem_function_B", "the chain from its third call on", mem_function_B},
        {"mem_function_C", "the chain from its fourth call on", mem_function_C},
        {"mem_mismatch_par", "is called with its arguments in the wrong order",
         mismatched_parameters},
        {"mem_stack_info", "prints what is known of the stack: no fault", mem_stack_info},
        {"mem_stack_corruption01", "a stack of 1.2 GB beside a block of 2 GB",
         mem_stack_corruption01},
        {"mem_stack_corruption02", "the same, with the largest block that is to be had",
         mem_stack_corruption02}};
    return all;
}

const Violation* find_violation(std::string_view name) {
    for (const Violation& violation : violations()) {
        if (name == violation.name) {
            return &violation;
        }
    }
    return nullptr;
}

} // namespace kxmdiag
