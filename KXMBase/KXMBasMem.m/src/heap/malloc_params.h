// The heap's parameters: what options write. The limit and the locking word stand here and once
// more in the state; an option writes this copy, the state's copy is what counts, and init_mparams
// carries one to the other. So an option takes effect at the next refresh, which every growth of
// the heap begins with.
#pragma once

#include <cstddef>
#include <cstdint>

#include "heap/mem_mlock.h"
#include "platform/compiler.h"
#include "platform/relaxed_word.h"

namespace heap {

/// Written without the heap's lock, by options; hence the relaxed words.
struct malloc_params {
    os::relaxed_word<std::size_t> magic;          // not zero: the state has been set up
    os::relaxed_word<std::size_t> page_size;      // not zero: the parameters have been set up
    os::relaxed_word<std::size_t> granularity;    // unit of system requests
    os::relaxed_word<std::size_t> mmap_threshold; // chunks at least this large may be mapped alone
    os::relaxed_word<std::size_t> trim_threshold; // first trim_check after each top reset
    os::relaxed_word<std::uint32_t> default_mflags;
    os::relaxed_word<std::uint32_t> use_lock;
    os::relaxed_word<std::size_t> memory_limit; // bytes; zero for none
};
static_assert(offsetof(malloc_params, magic) == 0 && offsetof(malloc_params, page_size) == 8);
static_assert(offsetof(malloc_params, granularity) == 16);
static_assert(offsetof(malloc_params, mmap_threshold) == 24);
static_assert(offsetof(malloc_params, trim_threshold) == 32);
static_assert(offsetof(malloc_params, default_mflags) == 40);
static_assert(offsetof(malloc_params, use_lock) == 44);
static_assert(offsetof(malloc_params, memory_limit) == 48 && sizeof(malloc_params) == 56);

inline constexpr std::size_t default_magic = 0x58585858; // "XXXX"
inline constexpr std::size_t default_mmap_threshold = 262144;
inline constexpr std::size_t default_trim_threshold = 2097152;
inline constexpr std::uint32_t default_flags = 7; // 1: direct mappings; 2 and 4 are never read
inline constexpr std::uint32_t default_use_lock = 2;

alignas(64) KXM_HIDDEN extern constinit malloc_params params;

/// Guards the first setting of the parameters.
extern constinit mem_mlock magic_mutex;

/// Around a fork: the heap's locks are taken and given back, or made anew in the child. Whether there is a
/// lock to take is settled by the first of them.
void lock_for_fork();
void unlock_in_parent();
void renew_in_child();

/// The first call sets parameters and state up; every call carries the limit and the locking word
/// to the state. Ends the process when the system's page or granularity is no power of two.
/// Always returns 0.
int init_mparams();

} // namespace heap
