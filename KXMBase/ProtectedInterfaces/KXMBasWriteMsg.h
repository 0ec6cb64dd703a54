/* A line of text to Fortran's unit 7, in order with what the program itself writes there. */
#ifndef KXMBasWriteMsg_h
#define KXMBasWriteMsg_h

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

/** Writes one line with the first `*length` characters of `text` to unit 7 and flushes it at once; a
    length of 0 or below writes an empty line. `hiddenLength`, which a Fortran caller passes by
    itself, is not used: C gives any value. From Fortran: call KXMBasWriteMsg(text, length), by the
    interface in the module.

    The library has no Fortran runtime. A program that links the Fortran binding brings the write to
    its unit 7. In one that does not, the lines go to the file "fort.7" of the working folder, as those
    of a Fortran program that never opened the unit would; its first line makes the file anew.
    Thread-safe; a line that cannot be written is lost without a word. */
KXMBASMEM_API void KXMBasWriteMsg(const char* text, const int64_t* length, size_t hiddenLength);

#ifdef __cplusplus
}

namespace kxm {

/// Writes one line of `length` characters, 0 or more, to unit 7 and flushes it.
extern "C" typedef void (*Unit7Writer)(const char* text, std::int64_t length);

/// For the Fortran binding, which calls it while it is loaded: whose unit 7 is written from now on;
/// null for the file. Returns the writer before.
KXMBASMEM_API Unit7Writer set_unit7_writer(Unit7Writer writer);

} // namespace kxm
#endif

#endif
