// A block is 64 bytes of header, whose first eight hold the index of the block's entry, and then what
// the caller gets. Entry `index` of the table is the text of the stack that asked for the block, from
// the C runtime, and null once the block was released or when no stack could be had.
#include "KXMBasMemTrackAlloc.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "KXMBasCallStack.h"
#include "mem_Interface.h"
#include "platform/compiler.h"

namespace {

constexpr std::size_t header = 64;
constexpr std::size_t step = 1048576; // entries by which the table grows
constexpr std::size_t step_bytes = step * sizeof(char*);

// What the back end gave is not tested: where it gave nothing, this write is the caller's access fault.
// Volatile, so that a compiler leaves it where and what it is.
KXM_NO_SANITIZE_INLINE void write_index(void* memory, std::uint64_t index) {
    *static_cast<volatile std::uint64_t*>(memory) = index;
}

std::uint64_t read_index(const void* memory) {
    std::uint64_t index = 0;
    std::memcpy(&index, memory, sizeof index);
    return index;
}

// The `used` entries of `old` and `step` cleared ones.
char** larger(char* const* old, std::size_t used) {
    const std::size_t used_bytes = used * sizeof(char*);
    void* const table = mem_Malloc(used_bytes + step_bytes);
    write_index(table, 0);
    if (used != 0) {
        std::memcpy(table, old, used_bytes);
    }
    std::memset(static_cast<char*>(table) + used_bytes, 0, step_bytes);
    return static_cast<char**>(table);
}

// Texts are released through a captured stack, whose own goes with it.
class Releaser {
public:
    explicit Releaser(int depth) : stack_(depth, nullptr) {}
    ~Releaser() { stack_.DeleteCStr(stack_.CStr()); }
    Releaser(const Releaser&) = delete;
    Releaser& operator=(const Releaser&) = delete;

    void release(char*& text) const {
        stack_.DeleteCStr(text);
        text = nullptr;
    }

private:
    KXMBasCallStack stack_;
};

} // namespace

KXMBasMemTrackAlloc::KXMBasMemTrackAlloc()
    : m_stackDepth(KXMBasCallStack::GetDepthSetting()), m_capacity(step), m_used(0),
      m_stacks(larger(nullptr, 0)) {}

KXMBasMemTrackAlloc::~KXMBasMemTrackAlloc() {
    const Releaser releaser(m_stackDepth);
    for (std::uint64_t index = 0; index < m_used; ++index) {
        if (m_stacks[index] != nullptr) {
            std::printf("%" PRIu64 ". UNRELEASED MEMORY FROM\n", index);
            std::printf("%s\n", m_stacks[index]);
            releaser.release(m_stacks[index]);
        }
    }
    std::fflush(stdout);
    mem_Free(m_stacks);
    m_stacks = nullptr;
}

void* KXMBasMemTrackAlloc::Alloc(std::size_t size) {
    if (m_used == m_capacity) {
        char** const table = larger(m_stacks, m_capacity);
        mem_Free(m_stacks);
        m_stacks = table;
        m_capacity += step;
    }
    void* const block = mem_Malloc(size + header); // may wrap, untested as well
    write_index(block, m_used);
    const KXMBasCallStack stack(m_stackDepth, nullptr);
    m_stacks[m_used] = stack.CStr(); // outlives the object
    ++m_used;
    return static_cast<char*>(block) + header;
}

void KXMBasMemTrackAlloc::Free(void* ptr) {
    if (ptr == nullptr) {
        return;
    }
    const Releaser releaser(m_stackDepth);
    char* const block = static_cast<char*>(ptr) - header;
    const std::uint64_t index = read_index(block);
    mem_Free(block);
    releaser.release(m_stacks[index]);
}

const KXMBasAllocator& KXMBasMemTrackAlloc::LargeBlockAllocator(const KXMBasAllocator& self) const {
    return self;
}

void* KXMBasMemTrackAlloc::Alloc(std::size_t, std::size_t&) {
    return nullptr;
}

void* KXMBasMemTrackAlloc::allocate(std::size_t, const void*) {
    return nullptr;
}

void KXMBasMemTrackAlloc::deallocate(void*, std::size_t) {}
