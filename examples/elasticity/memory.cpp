// Requests to the library, the count of them, and the budget.
//
// The counters are atomic because operator new may be called from any thread; the job itself has
// one.
#include "memory.h"

#include <KXMBasMem.h>

#include <atomic>

namespace elasticity {

namespace {

std::atomic<std::uint64_t> requests{0};
std::atomic<std::uint64_t> bytes_asked{0};
std::atomic<std::uint64_t> live_bytes{0};
std::atomic<std::uint64_t> peak_bytes{0};
std::atomic<std::size_t> budget{0};
Refusal refusal; // of one thread, like the job

constexpr auto relaxed = std::memory_order_relaxed;

void note_refusal(std::size_t bytes, bool by_budget) noexcept {
    mem_MaxFootprint();
    refusal = {bytes,
               by_budget,
               !by_budget && mem_ErrorMemoryLimit() != 0,
               live_bytes.load(relaxed),
               mem_Footprint(),
               mem_FragmentationInfo()};
}

// Room for a request: taken before it is made, so that the budget holds for all threads together.
bool charge(std::size_t bytes) noexcept {
    const std::size_t bound = budget.load(relaxed);
    const std::uint64_t before = live_bytes.fetch_add(bytes, relaxed);
    if (bound == 0 || (bytes <= bound && before <= bound - bytes))
        return true;
    live_bytes.fetch_sub(bytes, relaxed);
    note_refusal(bytes, true);
    return false;
}

// Outside the heap the library's peak is only as good as it is asked for: at every large request.
constexpr std::size_t worth_a_look = 256 * 1024;

void count_granted(std::size_t bytes) noexcept {
    if (bytes >= worth_a_look)
        mem_MaxFootprint();
    requests.fetch_add(1, relaxed);
    bytes_asked.fetch_add(bytes, relaxed);
    const std::uint64_t live = live_bytes.load(relaxed);
    std::uint64_t peak = peak_bytes.load(relaxed);
    while (peak < live && !peak_bytes.compare_exchange_weak(peak, live, relaxed))
        ;
}

void withdraw(std::size_t bytes) noexcept {
    live_bytes.fetch_sub(bytes, relaxed);
    note_refusal(bytes, false);
}

// Counts what came of a request that was charged.
void* settled(void* block, std::size_t bytes) {
    if (block == nullptr) {
        withdraw(bytes);
        throw std::bad_alloc{};
    }
    count_granted(bytes);
    return block;
}

} // namespace

void* allocate(std::size_t bytes) {
    if (!charge(bytes))
        throw std::bad_alloc{};
    return settled(mem_Malloc(bytes), bytes);
}

void* allocate_aligned(std::size_t bytes, std::size_t alignment) {
    if (!charge(bytes))
        throw std::bad_alloc{};
    return settled(mem_Malign(bytes, alignment), bytes);
}

void release(void* block, std::size_t bytes) noexcept {
    if (block == nullptr)
        return;
    mem_Free(block);
    work_discharge(bytes);
}

void release_aligned(void* block, std::size_t bytes) noexcept {
    if (block == nullptr)
        return;
    mem_MalignFree(block);
    work_discharge(bytes);
}

MemoryFigures memory_figures() noexcept {
    return {requests.load(relaxed), bytes_asked.load(relaxed), live_bytes.load(relaxed),
            peak_bytes.load(relaxed)};
}

Refusal last_refusal() noexcept {
    return refusal;
}

void set_memory_budget(std::size_t bytes) noexcept {
    budget.store(bytes, relaxed);
}

int work_charge(std::size_t bytes) noexcept {
    return charge(bytes) ? 1 : 0;
}

void work_granted(std::size_t bytes) noexcept {
    count_granted(bytes);
}

void work_refused(std::size_t bytes) noexcept {
    withdraw(bytes);
}

void work_discharge(std::size_t bytes) noexcept {
    live_bytes.fetch_sub(bytes, relaxed);
}

} // namespace elasticity
