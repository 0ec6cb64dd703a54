// The job's one way to memory: every block is asked of the library and counted.
//
// Vectors and maps draw through Allocator on handles, behind which the library's named pools stand
// (container_memory.h); strings and single blocks on its operator new, whose new-handler stands here; the
// Fortran kernels on the entries at the end. A request that is refused is reported with the call stack,
// throws std::bad_alloc and leaves its size behind, so that the job's own report of it needs no
// memory. What the C++ runtime's classes allocate by themselves goes to the library as well
// (KXMBasMemGlobalNew), and is not counted here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace elasticity {

/// What this program asked of the library so far. The sizes are bytes as requested, without the
/// library's own overhead.
struct MemoryFigures {
    std::uint64_t requests = 0;
    std::uint64_t small_requests = 0; // of at most 128 bytes, which the tiny block pool serves
    std::uint64_t bytes_asked = 0;
    std::uint64_t live_bytes = 0;
    std::uint64_t peak_bytes = 0;
};

/// Every block of every back end has at least this alignment; the guarded one has no more. Of the
/// tiny block pool's blocks those of up to 4 bytes have 4, which is enough for what fits them.
inline constexpr std::size_t guaranteed_alignment = 8;

/// Where a block comes from.
enum class Family {
    plain,  // operator new
    vector, // the handle of vectors
    map,    // the handle of maps
};

/// Returns a block of `bytes` bytes. Throws std::bad_alloc when the library refuses it.
void* allocate(std::size_t bytes, Family family = Family::plain);
/// Takes the size and the family that were asked for; a null block is allowed.
void release(void* block, std::size_t bytes, Family family = Family::plain) noexcept;

MemoryFigures memory_figures() noexcept;

/// How memory stood when a request was refused.
struct Refusal {
    std::size_t bytes = 0;          // of the request
    bool by_budget = false;         // by the bound below and not by the library
    int limit_error = 0;            // mem_ErrorMemoryLimit: not zero when the limit refused
    std::size_t limit = 0;          // bytes; 0 for none
    std::size_t footprint_kib = 0;  // as the library told
    std::size_t peak_footprint = 0; // bytes
    std::size_t largest_free = 0;   // bytes; the heap's largest free chunk
    std::uint64_t live_bytes = 0;   // that this program held

    bool by_limit() const { return by_budget || limit_error != 0; }
};

/// The last refusal, kept because everything is released on the way to the report of it.
Refusal last_refusal() noexcept;

/// Refuses requests that would take the live bytes above `bytes`; 0 takes the bound away. It stands
/// in for the library's limit on the back ends that have none.
void set_memory_budget(std::size_t bytes) noexcept;

/// Called after a refusal; true when it made room, so that the request is tried again. It must not
/// ask for memory.
using Rescue = bool (*)(const Refusal& refusal) noexcept;
void set_rescue(Rescue rescue) noexcept;

template <class T, Family family> struct Allocator {
    static_assert(alignof(T) <= guaranteed_alignment);
    using value_type = T;
    using propagate_on_container_move_assignment = std::true_type;
    using is_always_equal = std::true_type;
    template <class U> struct rebind { using other = Allocator<U, family>; };

    Allocator() = default;
    template <class U> Allocator(const Allocator<U, family>&) noexcept {}

    T* allocate(std::size_t count) {
        if (count > std::numeric_limits<std::size_t>::max() / sizeof(T))
            throw std::bad_array_new_length{};
        return static_cast<T*>(elasticity::allocate(count * sizeof(T), family));
    }
    void deallocate(T* block, std::size_t count) noexcept {
        release(block, count * sizeof(T), family);
    }

    template <class U> bool operator==(const Allocator<U, family>&) const noexcept { return true; }
};

template <class T> using Vector = std::vector<T, Allocator<T, Family::vector>>;
template <class Key, class Value>
using HashMap = std::unordered_map<Key, Value, std::hash<Key>, std::equal_to<Key>,
                                   Allocator<std::pair<const Key, Value>, Family::map>>;
// Unlike std::string it is never instantiated inside a shared C++ runtime, whose code would not use
// this program's operator new on Windows.
using String = std::basic_string<char, std::char_traits<char>, Allocator<char, Family::plain>>;

// The Fortran kernels ask the library themselves and tell the count of it here: work_charge before
// the request (0 means the budget forbids it), work_granted or work_refused after it, and
// work_discharge when the block goes back. After a refusal of either kind work_rescued tells
// whether to try again.
extern "C" {
int work_charge(std::size_t bytes) noexcept;
void work_granted(std::size_t bytes) noexcept;
void work_refused(std::size_t bytes) noexcept;
int work_rescued() noexcept;
void work_discharge(std::size_t bytes) noexcept;
}

/// The same round them for C++: a block of `bytes` that `ask` gives, which answers null when it has
/// none. Throws std::bad_alloc when nothing helps.
template <class Ask> void* counted(std::size_t bytes, Ask ask) {
    do {
        if (work_charge(bytes) == 0)
            continue;
        if (void* const block = ask()) {
            work_granted(bytes);
            return block;
        }
        work_refused(bytes);
    } while (work_rescued() != 0);
    throw std::bad_alloc{};
}

} // namespace elasticity
