// Requests to the library, the count of them, and the budget.
//
// The counters are atomic because operator new may be called from any thread; the job itself has
// one.
#include "memory.h"

#include "container_memory.h"

#include <KXMBasMem.h>

#include <atomic>
#include <cstdio>

namespace elasticity {

namespace {

std::atomic<std::uint64_t> requests{0};
std::atomic<std::uint64_t> small_requests{0};
std::atomic<std::uint64_t> bytes_asked{0};
std::atomic<std::uint64_t> live_bytes{0};
std::atomic<std::uint64_t> peak_bytes{0};
std::atomic<std::size_t> budget{0};
std::atomic<Rescue> rescue{nullptr};
Refusal refusal; // of one thread, like the job

constexpr auto relaxed = std::memory_order_relaxed;

void note_refusal(std::size_t bytes, bool by_budget) noexcept {
    refusal = {bytes,
               by_budget,
               by_budget ? 0 : mem_ErrorMemoryLimit(),
               by_budget ? budget.load(relaxed) : mem_MemoryLimit(),
               mem_Footprint(),
               mem_MaxFootprint(),
               mem_FragmentationInfo(),
               live_bytes.load(relaxed)};
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
constexpr std::size_t worth_a_look = std::size_t{256} * 1024;

void count_granted(std::size_t bytes) noexcept {
    if (bytes >= worth_a_look)
        mem_MaxFootprint();
    requests.fetch_add(1, relaxed);
    if (bytes <= 128)
        small_requests.fetch_add(1, relaxed);
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

// Whether a request that was just refused is worth another try.
bool rescued() noexcept {
    const Rescue way_out = rescue.load(relaxed);
    return way_out != nullptr && way_out(refusal);
}

// The library tells the way to what its operator new was refused; this tells it for the others.
void print_call_stack() noexcept {
    const KXMBasCallStack stack(20, nullptr);
    if (!stack.Available())
        return;
    std::printf("Current callstack:\n%s\n", stack.CStr());
    std::fflush(stdout);
    stack.DeleteCStr(stack.CStr());
}

thread_local std::size_t asked = 0; // bytes that allocate() is asking the library for

// The library calls it at every refusal, after its own report, and asks again when it returns.
void on_refusal() {
    if (asked == 0) // not a request of this file's
        throw std::bad_alloc{};
    withdraw(asked);
    if (!rescued())
        throw std::bad_alloc{};
    live_bytes.fetch_add(asked, relaxed);
}

struct Asking {
    explicit Asking(std::size_t bytes) {
        static const std::new_handler before = std::set_new_handler(on_refusal);
        static_cast<void>(before);
        asked = bytes;
    }
    ~Asking() { asked = 0; }
};

void* allocate_plain(std::size_t bytes) {
    while (!charge(bytes)) {
        if (work_rescued() == 0)
            throw std::bad_alloc{};
    }
    const Asking asking(bytes);
    void* const block = mem_OperatorNewThrowBuiltin(bytes);
    count_granted(bytes);
    return block;
}

} // namespace

void* allocate(std::size_t bytes, Family family) {
    if (family == Family::plain)
        return allocate_plain(bytes);
    const KXMBasAllocator& memory = container_memory(family);
    return counted(bytes, [&] { return memory.Alloc(bytes); });
}

void release(void* block, std::size_t bytes, Family family) noexcept {
    if (block == nullptr)
        return;
    if (family == Family::plain)
        mem_Free(block);
    else
        container_memory(family).Free(block);
    work_discharge(bytes);
}

MemoryFigures memory_figures() noexcept {
    return {requests.load(relaxed), small_requests.load(relaxed), bytes_asked.load(relaxed),
            live_bytes.load(relaxed), peak_bytes.load(relaxed)};
}

Refusal last_refusal() noexcept {
    return refusal;
}

void set_memory_budget(std::size_t bytes) noexcept {
    budget.store(bytes, relaxed);
}

void set_rescue(Rescue way_out) noexcept {
    rescue.store(way_out, relaxed);
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

int work_rescued() noexcept {
    if (rescued())
        return 1;
    print_call_stack();
    return 0;
}

void work_discharge(std::size_t bytes) noexcept {
    live_bytes.fetch_sub(bytes, relaxed);
}

} // namespace elasticity
