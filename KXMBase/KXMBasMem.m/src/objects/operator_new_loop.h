// The loop of all operator new entries: ask, report a refusal, call the new-handler, ask again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "KXMBasCallStack.h"
#include "mem_Interface.h"
#include "platform/compiler.h"
#include "platform/relaxed_word.h"

namespace operator_new {

inline constexpr std::size_t tiny_limit = 128; // the largest size of the tiny block pool

enum class Without_handler { throws, retries };

/// The entries whose classes KXQ_DEBUG_MEMSIZE checks, by what they are for.
enum class Checked { large, tiny };

/// Whether an entry checks sizes: one word for each, since each reads the environment by itself.
/// A race is harmless, since every thread reads the same.
using SizeCheck = os::relaxed_word<std::int32_t>;
inline constexpr std::int32_t check_off = 0, check_on = 1, check_unread = 2;

/// The same as a read of the environment.
std::int32_t read_size_check();

/// mem_Malloc for a size that the entry is for; ends the process for another; null for 0.
void* allocate_checked(std::size_t size, Checked entry);

/// The two parts of the failure report. Between them the loop captures its call stack, so that this
/// begins with the entry that was called. The first answers the stack's depth, and writes nothing
/// where that is 0.
int begin_report(std::size_t size);
void end_report(const KXMBasCallStack& stack);

/// Calls the new-handler; false when there is none.
bool call_handler();

template <Without_handler end, typename Allocate>
KXM_ALWAYS_INLINE void* loop(std::size_t size, Allocate allocate) {
    for (;;) {
        if (void* const ptr = allocate(size)) [[likely]] {
            return ptr;
        }
        if (const int depth = begin_report(size)) {
            const KXMBasCallStack stack(depth, nullptr);
            end_report(stack);
        }
        if (!call_handler() && end == Without_handler::throws) {
            throw std::bad_alloc();
        }
    }
}

template <Checked entry, Without_handler end>
KXM_ALWAYS_INLINE void* checked_loop(std::size_t size, SizeCheck& check) {
    return loop<end>(size, [&check](std::size_t bytes) {
        if (check == check_off) [[likely]] {
            return mem_Malloc(bytes);
        }
        if (check == check_unread) {
            check = read_size_check();
        }
        return check == check_off ? mem_Malloc(bytes) : allocate_checked(bytes, entry);
    });
}

} // namespace operator_new
