/* The one entry that the memory library needs of the solver's foundation library: where every
   failed invariant goes. */
#ifndef KX0CORE_h
#define KX0CORE_h

#if defined(_WIN32)
#if defined(KX0CORE_BUILDING)
#define KX0CORE_API __declspec(dllexport)
#else
#define KX0CORE_API __declspec(dllimport)
#endif
#else
#define KX0CORE_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Reports a failed invariant and is expected to end the process. `text` begins "AssertionFailed:";
    `source` and `line` say where. The three arguments between are always null here; they belong to
    the solver's own form of the call. May be called from any thread, with the memory library's
   locks held: it must not allocate through it. The library's code after each call stands for the
   case that a solver's own version returns. */
KX0CORE_API void KXTFatalError(const char* text, const char* first, const char* second,
                               const char* third, const char* source, int line);

#ifdef __cplusplus
}
#endif

#endif
