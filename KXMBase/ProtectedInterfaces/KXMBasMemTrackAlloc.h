// A debugging allocator: it remembers the call stack that asked for each block, and when it goes, lists
// on standard output the blocks that were not given back:
//
//   12. UNRELEASED MEMORY FROM
//     1) solver.exe                    KXMBasMemTrackAlloc::Alloc  ...
//     2) solver.exe                    read_mesh                   ... reader.cpp (120)
//
// The number counts the allocations, from 0. It works without memory tracking (KXA_MEM_TRACK) and
// leaves no files. Made for a run that looks for a leak, not for every day: a block costs 64 bytes
// more, 2000 for its text while it lives, 8 for good, and each Alloc and Free a capture; a table of
// 8 MiB is there from the start. KXA_CALLSTACK_DEPTH bounds the lines of a stack.
//
// It goes with its last handle. A container that is itself never destroyed keeps one, and then nothing is
// listed, of no block: in a search for leaks let containers that live as long as the program end first, or
// own the object by no handle and delete it at the end.
//
// REQUESTS ARE NOT TESTED: where memory runs out the caller meets an access fault. For one thread at a
// time. Sizes are bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KXMBasAllocator.h"
#include "KXMBasMemExport.h"

class KXMBASMEM_API KXMBasMemTrackAlloc : public KXMBasAllocatorBase {
public:
    KXMBasMemTrackAlloc();
    /// Prints what was not given back; those blocks stay allocated.
    ~KXMBasMemTrackAlloc() override;
    KXMBasMemTrackAlloc(const KXMBasMemTrackAlloc&) = delete;
    KXMBasMemTrackAlloc& operator=(const KXMBasMemTrackAlloc&) = delete;

    /// A block of this allocator, which goes back through Free alone.
    void* Alloc(std::size_t size) override;
    void Free(void* ptr) override; ///< null is allowed
    const KXMBasAllocator& LargeBlockAllocator(const KXMBasAllocator& self) const override;

    // Empty on purpose: null, without a look at `actualSize`, and nothing. A handle's operations of
    // these names come to the two above.
    void* Alloc(std::size_t size, std::size_t& actualSize) override;
    void* allocate(std::size_t size, const void* hint) override;
    void deallocate(void* ptr, std::size_t size) override;

private:
    std::int32_t m_stackDepth;
    std::uint64_t m_capacity; // entries of m_stacks
    std::uint64_t m_used;     // next entry: none is used twice
    char** m_stacks;          // null once released
};
