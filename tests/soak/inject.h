// What inject.cpp, preloaded into a program, knows of the memory that the library holds.
#pragma once

#include <cstddef>

struct InjectedAccount {
    std::size_t mapped;    ///< bytes of the heap's segments and direct mappings
    const void* kept;      ///< what of them a refused munmap left, and none took since; or null
    std::size_t kept_size; ///< its bytes
    long blocks;           ///< had of the C runtime's heap, and not given back
};

#ifdef __ELF__
extern "C" __attribute__((weak)) void kxm_injected_account(InjectedAccount* account);
#endif

/// False where it is not preloaded.
inline bool injected_account([[maybe_unused]] InjectedAccount& account) {
#ifdef __ELF__
    if (kxm_injected_account != nullptr) {
        kxm_injected_account(&account);
        return true;
    }
#endif
    return false;
}
