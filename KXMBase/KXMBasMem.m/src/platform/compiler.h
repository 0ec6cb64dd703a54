// The places where a compiler is told something that standard C++ cannot say.
#pragma once

#include <cstddef>
#include <cstdint>
#include <typeinfo>

#if !defined(__GNUC__)
#include <intrin.h>
#endif

/// For the few functions whose required behaviour is to read memory that a checker would object to.
/// A checked build never inlines them into what it checks. The first may be inlined elsewhere.
#if defined(__GNUC__)
#define KXM_NO_SANITIZE_INLINE __attribute__((no_sanitize("address", "thread", "undefined")))
#define KXM_NO_SANITIZE __attribute__((noinline)) KXM_NO_SANITIZE_INLINE
#else
#define KXM_NO_SANITIZE_INLINE
#define KXM_NO_SANITIZE __declspec(noinline)
#endif

/// A structure through which memory is read and written that may have held any other type before.
#if defined(__GNUC__)
#define KXM_MAY_ALIAS __attribute__((may_alias))
#else
#define KXM_MAY_ALIAS
#endif

/// A variable that no other library sees, so that hot code reaches it without a table.
#if defined(__GNUC__) && !defined(_WIN32)
#define KXM_HIDDEN __attribute__((visibility("hidden")))
#else
#define KXM_HIDDEN
#endif

/// For the body of a hot entry that another entry repeats: a call there would cost as much as the
/// work. The opposite for what hot code needs only in a rare case.
#if defined(__GNUC__)
#define KXM_ALWAYS_INLINE inline __attribute__((always_inline))
#define KXM_NEVER_INLINE __attribute__((noinline))
#else
#define KXM_ALWAYS_INLINE __forceinline
#define KXM_NEVER_INLINE __declspec(noinline)
#endif

/// For a function whose loops may use the processor's units of 32 bytes. Call it only where
/// os::has_wide_units() says so; where a compiler has no such choice, they answer no.
#if defined(__GNUC__)
#define KXM_WIDE_UNITS __attribute__((noinline, target("avx2")))
#else
#define KXM_WIDE_UNITS __declspec(noinline)
#endif

/// Where the frame of the function that called this one begins, and a block in this function's own
/// frame, at the end where its callees' frames begin. For functions that damage frames on purpose.
#if defined(__GNUC__)
#define KXM_CALLERS_FRAME() (static_cast<char*>(__builtin_dwarf_cfa()))
#define KXM_STACK_BLOCK(size) __builtin_alloca(size)
#else
#define KXM_CALLERS_FRAME() (static_cast<char*>(_AddressOfReturnAddress()) + 8)
#define KXM_STACK_BLOCK(size) _alloca(size)
#endif

/// Around static_asserts on the layout of a class with virtual functions, which every compiler here
/// lays out as such asserts expect and some warn about.
#if defined(__GNUC__)
#define KXM_LAYOUT_CHECKS_BEGIN                                                                    \
    _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Winvalid-offsetof\"")
#define KXM_LAYOUT_CHECKS_END _Pragma("GCC diagnostic pop")
#else
#define KXM_LAYOUT_CHECKS_BEGIN
#define KXM_LAYOUT_CHECKS_END
#endif

/// Around wrong uses of memory that are meant, of which GCC's analyzer would tell.
#if defined(__GNUC__) && !defined(__clang__)
#define KXM_MEANT_FAULTS_BEGIN                                                                     \
    _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wanalyzer-double-free\"")    \
        _Pragma("GCC diagnostic ignored \"-Wanalyzer-free-of-non-heap\"")                          \
            _Pragma("GCC diagnostic ignored \"-Wanalyzer-use-after-free\"")
#define KXM_MEANT_FAULTS_END _Pragma("GCC diagnostic pop")
#else
#define KXM_MEANT_FAULTS_BEGIN
#define KXM_MEANT_FAULTS_END
#endif

namespace os {

/// For the body of a loop that waits for another thread for a short while.
inline void spin_pause() {
#if defined(__GNUC__)
    __builtin_ia32_pause();
#else
    _mm_pause();
#endif
}

/// Whether the processor has units of 32 bytes (AVX2), and the system keeps their registers.
inline bool has_wide_units() {
#if defined(__GNUC__)
    return __builtin_cpu_supports("avx2") != 0;
#else
    return false;
#endif
}

/// Asks for the memory at `address` ahead of its use. Any address may be asked for.
inline void prefetch(const void* address) {
#if defined(__GNUC__)
    __builtin_prefetch(address);
#else
    _mm_prefetch(static_cast<const char*>(address), _MM_HINT_T0);
#endif
}

/// Copies `size` bytes without asking whether the source is readable for so long; a checked build
/// does not look at it either. pre: the ranges do not overlap.
void copy_unchecked(void* target, const void* source, std::size_t size);

/// The 64-bit word at `address`, read without asking whether it belongs to a live object.
/// pre: the address is mapped and a multiple of 8.
std::uint64_t read_word_unchecked(const void* address);

/// The same for hot code: one instruction in place, which no checker instruments, so that neither
/// does it matter whether another thread writes the word.
inline std::uint64_t peek_word(const void* address) {
#if defined(__GNUC__)
    struct KXM_MAY_ALIAS Word {
        std::uint64_t value;
    };
    std::uint64_t value = 0;
    __asm__("movq %1, %0" : "=r"(value) : "m"(*static_cast<const Word*>(address)));
    return value;
#else
    return *static_cast<const volatile std::uint64_t*>(address);
#endif
}

/// "class " and the name of a type as its programmer wrote it, cut to `capacity` with its NUL.
/// Compilers that keep the name in another form keep it as it is when memory is short.
void type_text(const std::type_info& type, char* text, std::size_t capacity);

} // namespace os
