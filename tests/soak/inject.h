// What inject.cpp, preloaded into a program, knows of the memory that the library holds.
#pragma once

#include <cstddef>

struct InjectedAccount {
    struct Kept {
        const void* base; ///< null: given back since
        std::size_t size;
    };
    std::size_t mapped; ///< bytes of the heap's segments and direct mappings
    const Kept* kept;   ///< what of them a refused munmap left
    std::size_t kept_count;
    long blocks; ///< had of the C runtime's heap, and not given back
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
