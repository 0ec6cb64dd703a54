/* Finding bad data: scans of memory for NaN or for a pattern, fills that make unset memory known by
   its pattern, and entries that make a variable's value count as used, so that a memory-checking tool
   reports it if it was never set. Thread-safe, as far as nobody else writes the memory meanwhile;
   nothing here allocates. */
#ifndef KXMBasMemoryCheck_h
#define KXMBasMemoryCheck_h

#ifdef __cplusplus
#include <cstdint>
#else
#include <stdint.h>
#endif

#include "KXMBasMemExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The environment variable MC_RESULT as it was at load, or null. Fills act only when it is set. */
extern KXMBASMEM_API const char* const MC_RESULT;

/** Use the value: a checker that follows undefined values reports it here. For callers in every
    language. */
KXMBASMEM_API void KXMBasMemoryCheckVarDP(const double* value);
KXMBASMEM_API void KXMBasMemoryCheckVarSP(const float* value);
KXMBASMEM_API void KXMBasMemoryCheckVarINT(const int* value);
KXMBASMEM_API void KXMBasMemoryCheckVarINT64(const int64_t* value);

/** Place holders for arrays: they do nothing. */
KXMBASMEM_API void KXMBasMemoryCheckArrayI(const void* values);
KXMBASMEM_API void KXMBasMemoryCheckArrayP(const void* values);
KXMBASMEM_API void KXMBasMemoryCheckArrayR(const void* values);
KXMBASMEM_API void KXMBasMemoryCheckArrayD(const void* values);

/** Takes the value by reference and does nothing: to the compiler it is used, and may have changed. */
#ifdef __cplusplus
KXMBASMEM_API void KXMBasMemorySink(const std::int64_t& value);
#else
KXMBASMEM_API void KXMBasMemorySink(const int64_t* value);
#endif

/** A place holder for a tool's print routine: prints nothing and returns 1. */
KXMBASMEM_API int memcheck_debug_printf(const char* format, ...);

#ifdef __cplusplus
}

/// The print routine that a tool supplies; none is looked for, so always null.
KXMBASMEM_API int (*locateMemCheckPrintf())(const char* format, ...);

/// What a scan looks for; other values are reported as not implemented.
enum KXMBasMemoryScanType : int { KXMBasMemoryScanNan = 1 };

/// Reports on standard output every one of `count` values that is a NaN by omi_isnan, in their order,
/// with the names given. That leaves out 0x7ff4000000000000, the signalling NaN of
/// std::numeric_limits and of gfortran's -finit-real=snan: poison with quiet ones. A null `values` or a count of 0 is no error, whatever the type.
KXMBASMEM_API void KXMBasMemoryScan(char const* name, double const* values, std::uint64_t count,
                                    KXMBasMemoryScanType type, char const* file, int line);

/// Reports on standard error every word of `memory` that equals the pattern: words of 8 bytes, or of
/// 4 for the int form, as many as lie whole in `byteCount`. The memory may lie anywhere.
KXMBASMEM_API void KXMBasMemoryScan(void* memory, std::uint64_t pattern, std::uint64_t byteCount);
KXMBASMEM_API void KXMBasMemoryScan(void* memory, int pattern, std::uint64_t byteCount);

/// Stores the pattern in the same words, if MC_RESULT was set at load; bytes behind the last whole
/// word stay. Otherwise does nothing.
KXMBASMEM_API void KXMBasMemoryInit(void* memory, std::uint64_t pattern, std::uint64_t byteCount);
KXMBASMEM_API void KXMBasMemoryInit(void* memory, int pattern, std::uint64_t byteCount);
#endif

#endif
