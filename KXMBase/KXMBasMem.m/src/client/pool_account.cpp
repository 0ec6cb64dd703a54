// See the header.
#include "client/pool_account.h"

#include "mem_Interface.h"
#include "platform/compiler.h"
#include "platform/relaxed_word.h"

namespace pool_account {
namespace {

using os::relaxed_read;
using os::relaxed_write;

// Nothing tests that a block is the heap's; but one of another back end that begins a page may have
// nothing in front of it to read.
bool has_size_word(void* ptr) {
    constexpr std::uintptr_t page_mask = 4095;
    const bool begins_page = (reinterpret_cast<std::uintptr_t>(ptr) & page_mask) == 0;
    return ptr != nullptr && (!begins_page || mem_usingDL() != 0);
}

void raise(std::uint64_t& figure, std::uint64_t value) {
    if (value > relaxed_read(figure)) {
        relaxed_write(figure, value);
    }
}

} // namespace

std::size_t alloc_size(void* ptr) {
    constexpr std::uint64_t flag_bits = 3;
    return has_size_word(ptr) ? os::peek_word(static_cast<std::uint64_t*>(ptr) - 1) & ~flag_bits
                              : 0;
}

std::size_t actual_size_for_use(void* ptr) {
    constexpr std::size_t chunk_header = 16;
    return has_size_word(ptr) ? alloc_size(ptr) - chunk_header : 0;
}

void update(bool active, bool decrease, std::size_t size, Figures figures) {
    if (!active) {
        return;
    }
    const std::uint64_t before = relaxed_read(figures.current);
    if (decrease) {
        // May wrap: a block from before the pool's activation takes the figure below zero. Meant.
        relaxed_write(figures.current, before - size);
        return;
    }
    relaxed_write(figures.current, before + size);
    raise(figures.high_water, before + size);
    raise(figures.peak, relaxed_read(figures.high_water));
}

} // namespace pool_account
