// See compiler.h. The copy is one instruction, which no checker instruments and no compiler turns
// into a call that a checker intercepts.
#include "platform/compiler.h"

#include <cstdio>
#include <cstdlib>

#if defined(__GNUC__)
#include <cxxabi.h>
#endif

namespace os {

void copy_unchecked(void* target, const void* source, std::size_t size) {
#if defined(__GNUC__)
    __asm__ volatile("rep movsb" : "+D"(target), "+S"(source), "+c"(size) : : "memory");
#else
    auto* to = static_cast<volatile unsigned char*>(target);
    auto* from = static_cast<const volatile unsigned char*>(source);
    while (size-- > 0) {
        *to++ = *from++;
    }
#endif
}

KXM_NO_SANITIZE std::uint64_t read_word_unchecked(const void* address) {
    return *static_cast<const volatile std::uint64_t*>(address);
}

void type_text(const std::type_info& type, char* text, std::size_t capacity) {
#if defined(__GNUC__)
    int status = 0;
    char* const name = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::snprintf(text, capacity, "class %s", name != nullptr ? name : type.name());
    std::free(name);
#else
    std::snprintf(text, capacity, "%s", type.name()); // begins with "class " by itself
#endif
}

} // namespace os
