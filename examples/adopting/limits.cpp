// What a program does about a memory limit: docs/limits.md tells it piece by piece. Each piece is run, and main's exit
// status is the number of the first that did not hold.
#include <KXMBasMem.h>

#include <cstdio>
#include <cstring>
#include <new>

constexpr std::size_t MiB = std::size_t{1} << 20;

// [set]
bool set_limit(std::size_t bytes) {
    if (mem_usingDL() == 0) {
        return false; // only the heap has a limit
    }
    mem_Free(
        mem_Malloc(256)); // the heap's first segment, before a limit that may be too low for it
    return mem_Mallopt(-5, bytes) != 0; // bytes; 0 takes the limit away
}
// [set]

// [refusal]
void* try_for(std::size_t bytes) {
    void* const block = mem_Malloc(bytes);
    if (block == nullptr) {
        std::fprintf(stderr, "no %zu bytes: %s; %zu KiB held, limit %zu bytes\n", bytes,
                     mem_ErrorMemoryLimit() != 0 ? "the limit" : "the system has none",
                     mem_Footprint(), mem_MemoryLimit());
    }
    return block; // whatever was held before is as it was
}
// [refusal]

// [reserve]
void* reserve = nullptr;

bool hold_reserve(std::size_t bytes) {
    reserve = mem_Malloc(bytes);
    if (reserve != nullptr) {
        std::memset(reserve, 1, bytes); // memory, not a promise of it
    }
    return reserve != nullptr;
}

bool give_up_reserve() {
    if (reserve == nullptr) {
        return false;
    }
    mem_Free(reserve);
    reserve = nullptr;
    mem_Trim(0); // what was freed leaves the footprint, so that a request of another size has room
    return true;
}
// [reserve]

// [raise]
bool raise_limit(std::size_t step, std::size_t ceiling) {
    const std::size_t limit = mem_MemoryLimit();
    if (limit == 0 || mem_ErrorMemoryLimit() == 0) {
        return false; // there is none, or it was the system that refused
    }
    return limit + step <= ceiling && mem_Mallopt(-5, limit + step) != 0;
}
// [raise]

// [new-handler]
void on_refusal() { // the library calls it after its report, and asks again when it returns
    if (!give_up_reserve() && !raise_limit(16 * MiB, 128 * MiB)) {
        throw std::bad_alloc();
    }
}
// [new-handler]

// [report]
// Allocator objects leave what they were refused on the error stack, which needs no memory to be read.
void* take_or_tell(mem_Allocator& memory, std::size_t bytes) {
    try {
        return memory.Malloc("assembly", bytes);
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "out of memory in %s: %zu KiB held, at most %zu bytes\n%s\n%s\n",
                     KXMBasErrorStack::ContextAsString(), mem_Footprint(), mem_MaxFootprint(),
                     KXMBasErrorStack::ErrorMessages(), KXMBasErrorStack::CStr());
        return nullptr; // or the end of the job, with its files closed
    }
}
// [report]

int main() {
    void* const first = set_limit(64 * MiB) ? try_for(20 * MiB) : nullptr;
    if (first == nullptr || !hold_reserve(20 * MiB)) {
        return 1;
    }
    std::memset(first, 7, 20 * MiB);
    if (try_for(40 * MiB) != nullptr || mem_ErrorMemoryLimit() != -1 ||
        static_cast<char*>(first)[20 * MiB - 1] != 7) {
        return 2; // refused, and nothing lost
    }
    std::set_new_handler(on_refusal);
    // [operator-new]
    auto* const values = static_cast<double*>(mem_OperatorNewThrowBuiltin(40 * MiB));
    // [operator-new]
    if (reserve != nullptr || mem_MemoryLimit() != 64 * MiB) {
        return 3; // the reserve was enough
    }
    auto* const more = static_cast<double*>(mem_OperatorNewThrowBuiltin(30 * MiB));
    if (mem_MemoryLimit() != 96 * MiB) {
        return 4; // the limit was raised twice
    }
    // [activate]
    KXMBasErrorStack::Activate();
    KXMBasErrorStack::Context(KXMBasErrorContext::assembly);
    // [activate]
    mem_Allocator memory;
    if (take_or_tell(memory, 200 * MiB) != nullptr || *KXMBasErrorStack::CStr() == '\0') {
        return 5;
    }
    mem_Free(more);
    mem_Free(values);
    mem_Free(first);
    return 0;
}
