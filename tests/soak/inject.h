// What inject.cpp, preloaded into a program, or inject_windows.cpp knows of the memory that the library holds.
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
    bool met;    ///< there were calls of the kind that is to fail
};

/// False where nothing is injected.
#ifdef __ELF__
extern "C" __attribute__((weak)) void kxm_injected_account(InjectedAccount* account);

inline bool injected_account(InjectedAccount& account) {
    if (kxm_injected_account != nullptr) {
        kxm_injected_account(&account);
        return true;
    }
    return false;
}
#else
bool injected_account(InjectedAccount& account);
#endif
