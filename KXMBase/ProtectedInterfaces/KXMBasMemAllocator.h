// The general allocator object behind a handle, over the C allocation interface: cleared memory, and
// std::bad_alloc when there is none. And the same without clearing.
//
// No operation returns null. A refusal is told on the error stack, if that is active: what was asked
// for, and the call stack. Blocks of any operation are the caller's until Free or deallocate of any of
// these objects. Any thread may call; what a refusal writes down is one text for all threads.
//
// The uninitialised-read detector
//
// With KXA_UMR_PRINT set to a positive number, allocate fills its blocks with the byte 0xFE and
// deallocate looks for runs of it that nobody wrote, in front of words that somebody did. Nothing
// observes the reads themselves. A block is taken as an array of 32-bit words:
//
//   word 5      must still hold the fill, or the block is not looked at
//   word 6      the block's size in bytes, WRITTEN BY ITS OWNER; without it nothing is looked at
//   word 10     the block's number, counted from 0 and written by allocate
//   12 onward   what is looked at
//
// Word 10 is written whatever the size: with the detector on, a block of fewer than 44 bytes is made
// of 44. A line tells the first word of a run, the word behind it and the length, all in words:
//
//    Allocation  7 : Size= 400, First_uninitializeded=  12  , Next_initialized=  16  , Diff= 4
//
// at most KXA_UMR_PRINT lines a block, on standard error and in ./KXMBas_UMR_Print.txt, which is
// appended to and never flushed before the process ends. A file that cannot be opened costs its lines
// there and nothing else. A run at the end of the block is not told, and a word of 0x80000000
// neither ends a run nor begins one. KXA_UMR_WATCH_ALLOC_ID is the number of a block whose lines have
// no limit and whose first one ends in "(watched)"; 0, the first block, when it is not set. Lines after a
// block's first say "Next_uninitializeded" and "Follow_initialized" and leave its number out. KXA_UMR_PRINT_ALLOC_SIZE,
// unless 0, keeps to blocks of this size. Each variable is read once, when it is first needed:
// whether the detector is on, at the first allocate that succeeds.
//
// Memory that something else left behind may look like such a block: what a faulty size makes the
// detector read is caught.
#pragma once

#include "KXMBasAllocator.h"

class KXMBASMEM_API KXMBasMemAllocator : public KXMBasAllocatorBase {
public:
    /// Cleared. `actualSize` is `size`, and stays as it was when memory is short.
    void* Alloc(std::size_t size, std::size_t& actualSize) override;
    void* Alloc(std::size_t size) override;
    void Free(void* ptr) override; ///< null is allowed
    const KXMBasAllocator& LargeBlockAllocator(const KXMBasAllocator& self) const override;

    /// NOT cleared, unlike what all the others give; filled by the detector when that is on.
    void* allocate(std::size_t size, const void* hint) override;
    /// The detector's look at the block, and its release. `size` is ignored.
    void deallocate(void* ptr, std::size_t size) override;

    /// Cleared arrays, given back by Free. A negative count is a size beyond any memory.
    virtual double* AllocDouble(int count);
    virtual int* AllocInt(int count);
};

/// Memory as it comes. Its allocate has nothing to do with the detector.
class KXMBASMEM_API KXMBasMemAllocatorNoInit : public KXMBasMemAllocator {
public:
    void* Alloc(std::size_t size, std::size_t& actualSize) override;
    void* Alloc(std::size_t size) override;
    double* AllocDouble(int count) override;
    int* AllocInt(int count) override;
    void* allocate(std::size_t size, const void* hint) override;
};
