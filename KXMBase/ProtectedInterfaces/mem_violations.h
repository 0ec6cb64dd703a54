/* Deliberate faults, to try memory-checking tools and crash handling on something real. Each function
   commits the fault that its comment names, and then goes on or dies, as the fault decides; nothing is
   guarded. They go to the C runtime's malloc, realloc and free and to the global new and delete,
   which outside tools watch, past this library's back ends, unless said otherwise. What they print goes
   to standard output. Never call one in a process that matters, nor from two threads.

   docs/faults.md tells which tool catches which of them. */
#ifndef mem_violations_h
#define mem_violations_h

#include "KXMBasMemExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Access to the heap and to the stack ------------------------------------------------------ */

KXMBASMEM_API void mem_invalid_read01(void);   /**< reads 4000 bytes behind a block of 4 */
KXMBASMEM_API void mem_invalid_write01(void);  /**< writes 40000 bytes behind a block of 4 */
KXMBASMEM_API void mem_heap_umr1(void);        /**< reads a block that was never set */
KXMBASMEM_API void mem_heap_overwrite1(void);  /**< writes directly behind a block of 4 */
KXMBASMEM_API void mem_heap_underwrite1(void); /**< writes directly in front of a block */
KXMBASMEM_API void mem_malloc_abr1(void);      /**< reads directly behind a block */
KXMBASMEM_API void mem_malloc_abw1(void);      /**< writes directly behind a block */
KXMBASMEM_API void mem_stack_umr1(void);       /**< reads a local variable that was never set */

/** Overruns a local array of 80 bytes, in its own frame and into the caller's. */
KXMBASMEM_API void mem_stack_overwrite1(void);
/** Calls mem_stack_overwrite_frame(1, 2, 3, 4). */
KXMBASMEM_API void mem_stack_overwrite2(void);
/** Shows two local values and its arguments before and after mem_stack_overwrite1. */
KXMBASMEM_API void mem_stack_overwrite_frame(int a, int b, int c, int d);

/* ---- Releases --------------------------------------------------------------------------------- */

KXMBASMEM_API void mem_stack_free(void);         /**< frees a local variable */
KXMBASMEM_API void mem_bss_free(void);           /**< frees a zero-initialised static object */
KXMBASMEM_API void mem_static_free(void);        /**< frees an initialised static object */
KXMBASMEM_API void mem_double_free(void);        /**< frees a block of 800 bytes twice */
KXMBASMEM_API void mem_misaligned_realloc(void); /**< resizes a block by an address inside it */
KXMBASMEM_API void mem_malloc_fim1(void); /**< frees an address inside a block, then the block */
KXMBASMEM_API void mem_new_fmr1(void);    /**< reads an object after its delete */
KXMBASMEM_API void mem_new_fmw1(void);    /**< writes to an object after its delete */
KXMBASMEM_API void mem_new_ffm1(void);    /**< deletes an object twice */
KXMBASMEM_API void mem_new_fmm1(void);    /**< frees what new made */
KXMBASMEM_API void mem_leak1(void);       /**< loses a block of 1,000,000 bytes */

/* ---- Allocation and copies -------------------------------------------------------------------- */

KXMBASMEM_API void mem_malloc_maf1(void);    /**< asks for 1 GiB and frees it, or null */
KXMBASMEM_API void mem_malloc_nsa1(void);    /**< asks for 0 bytes and frees the result */
KXMBASMEM_API void mem_overlap_bcopy(void);  /**< memcpy between ranges that overlap */
KXMBASMEM_API void mem_resize_to_zero(void); /**< realloc, and mem_Realloc, to 0 bytes */
KXMBASMEM_API void
mem_partial_union(void); /**< prints members of unions that were not or partly set */
KXMBASMEM_API void mem_partial_struct(void); /**< prints bit fields that were never set */

/* ---- Arithmetic and crashes ------------------------------------------------------------------- */

KXMBASMEM_API void mem_division_by_zero(void); /**< 2.0 by 0.0 */
/** The quotient. */
KXMBASMEM_API double mem_fp_division(double dividend, double divisor);
KXMBASMEM_API void mem_fpe01(void);  /**< the square root of -2 */
KXMBASMEM_API void mem_assert(void); /**< fails the platform's assertion */
KXMBASMEM_API void mem_abort(void);  /**< abort */
/** A call chain to recognise in a crash report: this, A, B, C, mem_abort. */
KXMBASMEM_API void mem_deliberateAbort(void);
KXMBASMEM_API void mem_function_A(void);
KXMBASMEM_API void mem_function_B(void);
KXMBASMEM_API void mem_function_C(void);

/* ---- Other ------------------------------------------------------------------------------------ */

/** Prints the second argument as a text: for a caller that passes something else. */
KXMBASMEM_API void mem_mismatch_par(int first, const char* text);

/** Prints where the stack begins and how deep it is, as far as the library knows, which is 0. */
KXMBASMEM_API void mem_stack_info(void);

/** Fills 1 MiB of stack at each level of a recursion, until a count that the process keeps exceeds the
    limit. The first call ever with 1200 fills 1.2 GB; once past a limit it is one level. */
KXMBASMEM_API void mem_stack_fill(int limit);

/** Shows the end of a large block of mem_Malloc before and after mem_stack_fill(1200): an S in it says
    that the stack ran into the block, which is never released. The first asks for 2000 MiB and gives up
    if refused; the second asks for 20 MiB less until it is served, and without any memory for ever. */
KXMBASMEM_API void mem_stack_corruption01(void);
KXMBASMEM_API void mem_stack_corruption02(void);

#ifdef __cplusplus
}
#endif

#endif
