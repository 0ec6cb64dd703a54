// The two ways out of a refusal. Nothing here asks for memory: it runs when there is none.
#include "rescue.h"

#include "memory.h"
#include "report.h"

#include <KXMBasMem.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace elasticity {

namespace {

RescueSettings present;
void* reserve = nullptr;
int count = 0;

constexpr std::size_t least_step = std::size_t{16} << 20;
constexpr std::size_t overhead = std::size_t{1} << 20; // the heap's own, for any one request

void tell(const Refusal& refusal, const char* remedy, std::size_t bytes) {
    char text[120];
    print_refusal("elasticity: memory was refused", refusal);
    std::snprintf(text, sizeof text, "  remedy            %s %zu bytes\n", remedy, bytes);
    std::fputs(text, stderr);
}

bool give_up_reserve(const Refusal& refusal) {
    if (reserve == nullptr)
        return false;
    release(reserve, present.reserve);
    reserve = nullptr;
    tell(refusal, "the reserve is given up,", present.reserve);
    return true;
}

bool raise_limit(const Refusal& refusal) {
    if (present.limit == 0 || present.limit >= present.ceiling)
        return false;
    if (refusal.bytes > present.ceiling) // also keeps the sums below from wrapping
        return false;
    const std::size_t held = refusal.by_budget ? static_cast<std::size_t>(refusal.live_bytes)
                                               : refusal.footprint_kib * 1024;
    const std::size_t needed = held + refusal.bytes + overhead;
    const std::size_t step = std::max(least_step, present.limit / 8);
    const std::size_t limit = std::min(present.ceiling, std::max(needed, present.limit + step));
    if (!set_memory_limit(limit))
        return false;
    present.limit = limit;
    tell(refusal, "the limit is raised to", limit);
    return true;
}

bool rescue(const Refusal& refusal) noexcept {
    // A refusal by the system is none that a higher limit could mend.
    const bool rescued = give_up_reserve(refusal) || (refusal.by_limit() && raise_limit(refusal));
    count += rescued;
    return rescued;
}

} // namespace

void prepare_rescue(const RescueSettings& settings) {
    present = settings;
    if (settings.reserve != 0) {
        reserve = allocate(settings.reserve);
        std::memset(reserve, 1, settings.reserve);
    }
    set_rescue(rescue);
}

bool set_memory_limit(std::size_t bytes) noexcept {
    constexpr int limit_parameter = -5;
    if (mem_usingDL() != 0)
        return mem_Mallopt(limit_parameter, bytes) != 0;
    set_memory_budget(bytes);
    return true;
}

int rescues() noexcept {
    return count;
}

} // namespace elasticity
