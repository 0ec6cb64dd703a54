// Faults of memory: wrong accesses, wrong releases, blocks and values that were never set. See
// real_faults.h for how they are kept real.
#include "mem_violations.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "faults/real_faults.h"
#include "mem_Interface.h"

KXM_MEANT_FAULTS_BEGIN

using faults::decide_by;
using faults::hidden;
using faults::stay;
using faults::words;

namespace {

std::int32_t s_zeroed;    // in zero-initialised storage
std::int32_t s_set = 777; // in initialised storage
constexpr std::size_t word = sizeof(std::int32_t);

KXM_ALWAYS_INLINE void release(void* block) {
    std::free(hidden(block));
    stay();
}

KXM_ALWAYS_INLINE void read_at(std::size_t index) {
    void* const block = std::malloc(word);
    decide_by(words(block)[index]);
    release(block);
}

KXM_ALWAYS_INLINE void write_at(std::ptrdiff_t index, std::int32_t value) {
    void* const block = std::malloc(word);
    words(block)[index] = value;
    release(block);
}

// A zeroed integer that was set and deleted.
KXM_ALWAYS_INLINE volatile std::int32_t* deleted_integer() {
    auto* const object = hidden(new std::int32_t(0));
    *words(object) = 0;
    delete object;
    // cppcheck-suppress deallocret ; that is the fault
    return words(object);
}

} // namespace

void faults::say(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

// Access -----------------------------------------------------------------------------------------

KXM_NO_SANITIZE void mem_invalid_read01() {
    read_at(1000);
}

KXM_NO_SANITIZE void mem_invalid_write01() {
    write_at(10000, 0);
}

KXM_NO_SANITIZE void mem_heap_umr1() {
    read_at(0);
}

KXM_NO_SANITIZE void mem_heap_overwrite1() {
    write_at(1, 777);
}

KXM_NO_SANITIZE void mem_heap_underwrite1() {
    write_at(-1, 777);
}

KXM_NO_SANITIZE void mem_malloc_abr1() {
    read_at(1);
}

KXM_NO_SANITIZE void mem_malloc_abw1() {
    write_at(1, 0);
}

KXM_NO_SANITIZE void mem_stack_umr1() {
    std::int32_t never_set;
    const std::int32_t copy = *words(&never_set);
    decide_by(copy);
}

// Releases ---------------------------------------------------------------------------------------

// A heap takes what lies in front of it for its own record of a block: were that left to what the stack held before,
// now and then it would pass for one.
KXM_NO_SANITIZE void mem_stack_free() {
    struct {
        std::int64_t in_front[4];
        std::int32_t variable;
    } local;
    for (volatile std::int64_t& record : local.in_front) {
        record = 0;
    }
    local.variable = 0;
    release(&local.variable);
}

KXM_NO_SANITIZE void mem_bss_free() {
    release(&s_zeroed);
}

KXM_NO_SANITIZE void mem_static_free() {
    release(&s_set);
}

KXM_NO_SANITIZE void mem_double_free() {
    void* const block = hidden(std::malloc(800));
    release(block);
    release(block);
}

KXM_NO_SANITIZE void mem_misaligned_realloc() {
    auto* const block = static_cast<char*>(std::malloc(256));
    release(std::realloc(hidden(block + 8), 1024));
}

KXM_NO_SANITIZE void mem_malloc_fim1() {
    auto* const block = static_cast<char*>(hidden(std::malloc(word)));
    release(block + 4);
    release(block);
}

KXM_NO_SANITIZE void mem_new_fmr1() {
    decide_by(*deleted_integer());
}

KXM_NO_SANITIZE void mem_new_fmw1() {
    *deleted_integer() = 0;
}

KXM_NO_SANITIZE void mem_new_ffm1() {
    auto* const object = hidden(new std::int32_t);
    delete object;
    delete hidden(object);
    stay();
}

KXM_NO_SANITIZE void mem_new_fmm1() {
    release(new std::int32_t);
}

KXM_NO_SANITIZE void mem_leak1() {
    static_cast<void>(hidden(std::malloc(1000000)));
}

// Allocation and copies --------------------------------------------------------------------------

KXM_NO_SANITIZE void mem_malloc_maf1() {
    release(std::malloc(1073741824));
}

KXM_NO_SANITIZE void mem_malloc_nsa1() {
    release(std::malloc(0));
}

KXM_NO_SANITIZE void mem_overlap_bcopy() {
    char buffer[10] = {};
    // The function itself, which a checker watches, and not the compiler's own copy of eight bytes.
    void* (*volatile copy)(void*, const void*, std::size_t) = std::memcpy;
    copy(hidden(buffer), hidden(buffer) + 2, 8);
    stay();
}

KXM_NO_SANITIZE void mem_resize_to_zero() {
    const auto cut = [](const void* address) { return static_cast<int>(faults::shown(address)); };
    std::printf(" Testing resize(0) operation\n");
    void* block = hidden(std::malloc(40));
    for (std::int32_t i = 0; i < 10; ++i) {
        words(block)[i] = i + 1;
    }
    std::printf("   Array's address before: %d\n", cut(block));
    std::printf("   Array's address after : %d\n", cut(std::realloc(hidden(block), 0)));
    block = hidden(mem_Malloc(40));
    std::printf("   Array's address before: %d\n", cut(block));
    std::printf("   Array's address after : %d\n", cut(mem_Realloc(hidden(block), 0)));
}

// Aggregates -------------------------------------------------------------------------------------

namespace {

union Partial {
    int integerMember;
    void* pointerMember;
};

struct Access {
    unsigned accessCount : 1;
    unsigned accessFlags : 2;
    unsigned accessState : 3;
};
static_assert(sizeof(Partial) == 8 && sizeof(Access) == 4);

// The low 32 bits, as the format shows them on the reference system.
KXM_ALWAYS_INLINE std::uint32_t pointer_member(const volatile Partial* partial) {
    return faults::shown(static_cast<char*>(partial->pointerMember));
}

KXM_ALWAYS_INLINE void print(const volatile Access* access) {
    std::printf(" accessCount = %d\n", static_cast<int>(access->accessCount));
    std::printf(" accessFlags = %d\n", static_cast<int>(access->accessFlags));
    std::printf(" accessState = %d\n", static_cast<int>(access->accessState));
}

} // namespace

KXM_NO_SANITIZE void mem_partial_union() {
    Partial never_set;
    const volatile Partial* const local = hidden(&never_set);
    std::printf(" integerMember = %d\n", local->integerMember);
    std::printf(" pointerMember = %lx\n", static_cast<unsigned long>(pointer_member(local)));
    auto* const partly_set = hidden(new Partial);
    volatile Partial* const heap = partly_set;
    heap->integerMember = 1;
    std::printf(" integerMember = %d\n", heap->integerMember);
    std::printf(" pointerMember = %x\n", pointer_member(heap));
    delete partly_set;
}

KXM_NO_SANITIZE void mem_partial_struct() {
    auto* const access = hidden(new Access);
    print(access);
    const Access copy = *access;
    print(hidden(&copy));
    delete access;
}

KXM_MEANT_FAULTS_END
