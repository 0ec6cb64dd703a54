// The guarded back end, a debugging aid: brackets every block with a known text and reports damage
// to it. The block's layout is drawn in mem_Backends.h. It has no out-of-memory path: when the C
// runtime refuses, the header is written through a null pointer and the process takes the fault.
#include "frame/mem_Backends.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

#include "platform/compiler.h"
#include "platform/os.h"

namespace {

using Byte = unsigned char;

constexpr char guard_text[] = "DEADBEEFDEADBEEF";
constexpr std::size_t guard_size = sizeof guard_text - 1; // no terminator in the block
constexpr std::size_t front_guard_at = sizeof(std::uint64_t);
constexpr std::size_t data_at = front_guard_at + guard_size;
constexpr std::size_t overhead = data_at + guard_size;
static_assert(guard_size == 16 && data_at == 24 && overhead == 40);

constexpr std::size_t size_max = std::numeric_limits<std::size_t>::max();

// The bytes to ask the runtime for. A size whose sum would wrap asks for more than any runtime has,
// and so meets the same end as any refusal.
std::size_t with_overhead(std::size_t size) {
    return size > size_max - overhead ? size_max : size + overhead;
}

// Writes the header and both guards; returns the caller's pointer.
void* dress(void* block, std::size_t size) {
    auto* const start = static_cast<Byte*>(block);
    const std::uint64_t stored = size;
    std::memcpy(start, &stored, sizeof stored); // faults here when there is no block
    std::memcpy(start + front_guard_at, guard_text, guard_size);
    std::memcpy(start + data_at + size, guard_text, guard_size);
    return start + data_at;
}

// Reads without a checker's view: a foreign pointer's neighbourhood is looked at all the same, and
// so is whatever place a damaged size field points to.
KXM_NO_SANITIZE bool guard_intact(std::uintptr_t address) {
    const auto* const guard = reinterpret_cast<const volatile Byte*>(address);
    for (std::size_t i = 0; i < guard_size; ++i) {
        if (guard[i] != static_cast<Byte>(guard_text[i])) {
            return false;
        }
    }
    return true;
}

// Only the low 32 bits of the address are printed; the messages are meant to read so.
unsigned low_word(std::uintptr_t address) {
    return static_cast<unsigned>(address);
}

enum class Entry { free, realloc };
enum class End { front, back };

void report(Entry entry, End end, std::uintptr_t guard) {
    if (entry == Entry::free) {
        std::fprintf(stderr,
                     end == End::front ? "FREE:memory overwrite detected at 0x%x front end\n"
                                       : "FREE:memory overwrite detected at 0x%x back end\n",
                     low_word(guard));
    } else {
        std::fprintf(stderr,
                     end == End::front ? "REALLOC:memory overwrite detected at 0x%x front end\n"
                                       : "REALLOC:memory overwrite detected at 0x%x back end\n",
                     low_word(guard));
    }
    std::fflush(stderr);
}

// Looks at both guards, always, so that one block may report both. The back guard is found through
// the stored size, which lies in front of the front guard where nothing protects it.
void check_guards(Entry entry, void* ptr) {
    const auto data = reinterpret_cast<std::uintptr_t>(ptr);
    const std::uintptr_t front = data - guard_size;
    if (!guard_intact(front)) {
        report(entry, End::front, front);
    }
    std::uint64_t size = 0;
    os::copy_unchecked(&size, reinterpret_cast<const void*>(data - data_at), sizeof size);
    const std::uintptr_t back = data + size;
    if (!guard_intact(back)) {
        report(entry, End::back, back);
    }
}

// Takes the processor's division fault for a divisor of 0: meant. A compiler that saw the division would be free
// to take 0 for impossible, and drop tests of it elsewhere.
KXM_NO_SANITIZE std::size_t quotient(std::size_t number, std::size_t divisor) {
    const volatile std::size_t by = divisor;
    // NOLINTNEXTLINE(clang-analyzer-core.DivideZero): that fault is asked for
    return number / by;
}

void* block_of(void* ptr) {
    return static_cast<Byte*>(ptr) - data_at;
}

} // namespace

void* myMalloc(std::size_t size) {
    return dress(os::runtime_allocator.malloc(with_overhead(size)), size);
}

void myFree(void* ptr) {
    if (ptr == nullptr) {
        os::runtime_allocator.free(nullptr);
        return;
    }
    check_guards(Entry::free, ptr);
    os::runtime_allocator.free(block_of(ptr));
}

void* myRealloc(void* ptr, std::size_t size) {
    void* old = nullptr;
    if (ptr != nullptr) {
        check_guards(Entry::realloc, ptr);
        old = block_of(ptr);
    }
    return dress(os::runtime_allocator.realloc(old, with_overhead(size)), size);
}

void* myCalloc(std::size_t count, std::size_t size) {
    const std::size_t total = count * size; // wraps like the runtime's own product once did: meant
    // Whole elements that cover data and overhead; there is no test of a size of 0, which faults.
    // A request whose sum would wrap asks for more than there is, as in with_overhead.
    const std::size_t rounding = size - 1;
    const bool wraps =
        size != 0 && (rounding > size_max - overhead || total > size_max - overhead - rounding);
    const std::size_t elements = wraps ? size_max : quotient(total + overhead + rounding, size);
    return dress(os::runtime_allocator.calloc(elements, size), total);
}
