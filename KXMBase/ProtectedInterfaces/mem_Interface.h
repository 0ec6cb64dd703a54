/* The C allocation interface: the door through which all of the solver's memory passes.

   Plain C names and arguments, for C, C++ and Fortran. Every entry may be called from any thread,
   once the library is loaded. A request goes to the tiny block pool when that is on and the request
   is at most 128 bytes, and to the bound back end otherwise; then the tracker is told of it.

   Failure is a null result; nothing here prints or throws (the guarded back end does print what
   damage it finds, and faults where it is refused memory). Blocks belong to the caller until they
   are given back through the entry named with each allocation. Sizes are bytes unless said
   otherwise. */
#ifndef mem_Interface_h
#define mem_Interface_h

#include <stddef.h>
#ifdef __cplusplus
#include <cstdint>
#else
#include <stdint.h>
#endif

#include "KXMBasMemExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Blocks ------------------------------------------------------------------------------- */

/** A block of `size` bytes, uninitialised; null when memory is short. Given back by mem_Free.
    Alignment: 16 on the C runtime, 64 on the aligned back end and the heap, 8 on the guarded back
    end and in the tiny block pool. */
KXMBASMEM_API void* mem_Malloc(size_t size);

/** As mem_Malloc; when that gives null, the installed new-handler is called once for its effect.
    The request is not repeated: the result stays null after the handler returns. */
KXMBASMEM_API void* mem_Malloc_Handled(size_t size);

/** Gives back a block of mem_Malloc, mem_Malloc_Handled, mem_Calloc or mem_Realloc. Null is
   allowed. On the aligned back end a block of mem_Calloc must not be given here: it comes from the
   C runtime's calloc, whatever the back end does with it. */
KXMBASMEM_API void mem_Free(void* ptr);

/** The block `ptr` with a new size, at the same address or another; the contents are kept up to the
    smaller size. A null `ptr` asks for a new block. When memory is short the result is null and
    `ptr` stays as it was.
    Size 0 differs by back end and is best avoided: the C runtime releases `ptr` and gives null, the
    guarded back end gives a block without bytes, the aligned one gives null and keeps `ptr`, the
   heap does as the C runtime. On the aligned back end the copy has the length of the new size even
   when the block grows, and so reads past the end of the old one. */
KXMBASMEM_API void* mem_Realloc(void* ptr, size_t size);

/** `count` times `size` zeroed bytes. Never a tiny block, whatever the size. On the aligned back
   end it is the C runtime's calloc, and the runtime's free is what gives it back. */
KXMBASMEM_API void* mem_Calloc(size_t count, size_t size);

/** A block of `size` bytes at a multiple of `alignment`, any power of two. It comes from the C
    runtime's aligned allocator on every back end, so it does not count against the memory limit,
    and it must be given back through mem_MalignFree, never through mem_Free. */
KXMBASMEM_API void* mem_Malign(size_t size, size_t alignment);

/** Gives back a block of mem_Malign. Null is allowed. */
KXMBASMEM_API void mem_MalignFree(void* ptr);

/** Marks for the tracker, in the solver's own protocol of lending blocks. No memory is touched. */
KXMBASMEM_API void mem_Release(void* ptr);
KXMBASMEM_API void mem_Acquire(void* ptr);

/* ---- Control and figures ------------------------------------------------------------------ */

/** Gives whole segments back to the system, keeping `pad` bytes. 1 when something went back. Always
    0 on any back end but the heap. */
KXMBASMEM_API int mem_Trim(size_t pad);

/** Sets a parameter of the heap, without taking its lock; 1 when it was taken.
    -1: bytes of top above which a release trims. -2: unit of requests to the system in bytes, a
   power of two of at least a page; otherwise 0 and no change. -3: bytes from which a request is
   mapped directly. -4: whether entries take the lock; answers 0 although it is taken. -5: the
   memory limit in bytes, 0 for none. The last two are obeyed from the heap's next growth on. Any
   other parameter, and any other back end: 0. */
KXMBASMEM_API int mem_Mallopt(int param, size_t value);

/** Memory held now, in KIBIBYTES: the heap's footprint, or the process's private bytes on any other
    back end. */
KXMBASMEM_API size_t mem_Footprint(void);

/** The highest footprint so far, in BYTES, although mem_Footprint answers in kibibytes. Outside the
    heap it is the highest value met by the calls of this entry, so it is only as good as they are
    frequent; racing callers may lose the higher value until the next call. */
KXMBASMEM_API size_t mem_MaxFootprint(void);

/** The memory limit in bytes, 0 for none; always 0 on any back end but the heap. */
KXMBASMEM_API size_t mem_MemoryLimit(void);

/** Size of the largest free chunk in bytes, the top not counted; 0 on any back end but the heap. */
KXMBASMEM_API size_t mem_FragmentationInfo(void);

/** -1 when the latest attempt to grow was refused by the memory limit, else 0. Another thread's
    later attempt overwrites it. */
KXMBASMEM_API int mem_ErrorMemoryLimit(void);

/** 1 when the heap is the bound back end, else 0. */
KXMBASMEM_API int mem_usingDL(void);

/** Private bytes of the process now, and the highest they ever were, in kibibytes; 0 when the
   system does not answer. On Linux the peak is derived from the peak of the address space. */
KXMBASMEM_API size_t mem_FootprintFromResources(void);
KXMBASMEM_API size_t mem_MaxFootprintFromResources(void);

/** Releases the heap's lock on behalf of a thread that holds it and will not come back; for crash
    handlers alone. Does nothing on any back end but the heap. */
KXMBASMEM_API void mem_ReleaseMemoryLock(void);

/** The figures of the heap that carry information, in bytes but for the count `ordblks`. */
typedef struct mem_DLMallinfoType {
    uint64_t arena;    /**< bytes in segments held from the system */
    uint64_t ordblks;  /**< number of free chunks */
    uint64_t hblkhd;   /**< bytes in direct mappings */
    uint64_t usmblks;  /**< highest footprint */
    uint64_t uordblks; /**< bytes in use */
    uint64_t fordblks; /**< bytes free */
    uint64_t keepcost; /**< bytes of the top chunk, which a trim may give back */
} mem_DLMallinfoType;

/** All zero on any back end but the heap. */
KXMBASMEM_API mem_DLMallinfoType mem_DLMallinfo(void);

/** What mem_FragmentationInfo answers outside the heap: 0. */
KXMBASMEM_API size_t mem_nofragmentationinfo(void);

/* ---- The aligned back end ----------------------------------------------------------------- */

/** A block of `size` bytes on a 64-byte boundary, or null. Given back by mem_free_aligned. */
KXMBASMEM_API void* mem_malign(size_t size);

/** mem_Realloc of the aligned back end, with the over-long copy described there. The old block must
    be readable for `size` bytes. Size 0 gives null and keeps the block. */
KXMBASMEM_API void* mem_realign(void* ptr, size_t size);

/** Gives back a block of mem_malign, mem_realign or mem_alignedAlloc. Null is allowed. */
KXMBASMEM_API void mem_free_aligned(void* ptr);

/** A block at a multiple of `alignment`, any power of two; null when memory is short or `alignment`
    is none. Given back by mem_free_aligned. */
KXMBASMEM_API void* mem_alignedAlloc(size_t size, size_t alignment);

#ifdef __cplusplus
}
#endif

#endif
