// What the solver's containers hold in place of an allocator: a handle of one pointer that is copied
// freely, over an allocator object that counts its handles and goes with the last of them.
//
//   KXMBasAllocator memory(new KXMBasMemAllocator); // wrapped once
//   KXMBasAllocator too = memory;                   // every further handle is a copy
//   void* block = too.Alloc(1000);
//   too.Free(block);
//
// A BASE POINTER IS WRAPPED ONCE. Wrapping it again sets its count back to 1, and then the first of
// those handles that goes takes the allocator from under the others.
//
// THE COUNT TAKES NO LOCK AND IS NOT ATOMIC: handles that share an allocator are copied, assigned and
// destroyed by one thread at a time. Whether Alloc and Free may be called from several is up to the
// allocator behind. Sizes are bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KXMBasMemExport.h"
#include "mem_AllocationOperators.h"

class KXMBasAllocator;

namespace kxm {
struct AllocatorAccess;
} // namespace kxm

/// An allocator object, to be derived from and made with `new`. The order of the virtual operations
/// is fixed: others have been compiled against it.
class KXMBASMEM_API KXMBasAllocatorBase : public mem_AllocationOperators {
public:
    KXMBasAllocatorBase() : mRefCount(0) {}
    // The count belongs to the object: a copy of it has no handles yet.
    KXMBasAllocatorBase(const KXMBasAllocatorBase&) : mem_AllocationOperators(), mRefCount(0) {}
    // cppcheck-suppress operatorEqVarError ; and an assignment does not change whose handles there are
    KXMBasAllocatorBase& operator=(const KXMBasAllocatorBase&) { return *this; }
    virtual ~KXMBasAllocatorBase();

    /// A block of `size` bytes, and in `actualSize` how many of them may be used.
    virtual void* Alloc(std::size_t size, std::size_t& actualSize) = 0;
    virtual void* Alloc(std::size_t size) = 0;
    virtual void Free(void* ptr) = 0;
    /// The allocator for large blocks; `self` is the handle that was asked.
    virtual const KXMBasAllocator& LargeBlockAllocator(const KXMBasAllocator& self) const = 0;

    /// For callers that hold the allocator itself: a handle's operations of these names do not come
    /// here.
    virtual void* allocate(std::size_t size, const void* hint) = 0;
    virtual void deallocate(void* ptr, std::size_t size) = 0;

private:
    friend class KXMBasAllocator;
    friend struct kxm::AllocatorAccess;

    std::int32_t mRefCount; // handles that share this allocator
};

/// The handle. One made of a null pointer may be copied, assigned and destroyed; to use it is a fatal
/// error.
class KXMBASMEM_API KXMBasAllocator {
public:
    /// Takes the allocator over, which is deleted with its last handle. Sets its count to 1, whatever
    /// it was.
    KXMBasAllocator(KXMBasAllocatorBase* base) noexcept : mBase(base) {
        if (mBase != nullptr) {
            mBase->mRefCount = 1;
        }
    }
    KXMBasAllocator(const KXMBasAllocator& other) noexcept : mBase(other.mBase) {
        if (mBase != nullptr) {
            ++mBase->mRefCount;
        }
    }
    ~KXMBasAllocator() {
        if (mBase != nullptr && --mBase->mRefCount == 0) {
            delete mBase;
        }
        // Volatile, so that it is done although the object ends here: who comes to a handle that is
        // gone meets the fatal error rather than an allocator that is gone.
        *const_cast<KXMBasAllocatorBase* volatile*>(&mBase) = nullptr;
    }
    KXMBasAllocator& operator=(const KXMBasAllocator& other) noexcept {
        KXMBasAllocator copy(other); // taken before the old one is given up
        Swap(copy);
        return *this;
    }

    /// What the allocator behind does: see there for contents, failure and thread rules.
    void* Alloc(std::size_t size) const { return Usable() ? mBase->Alloc(size) : nullptr; }
    void* Alloc(std::size_t size, std::size_t& actualSize) const {
        return Usable() ? mBase->Alloc(size, actualSize) : nullptr;
    }
    void Free(void* ptr) const {
        if (Usable()) {
            mBase->Free(ptr);
        }
    }
    const KXMBasAllocator& LargeBlockAllocator() const {
        return Usable() ? mBase->LargeBlockAllocator(*this) : *this;
    }

    /// The allocator's Alloc and Free, and not its own operations of these names, which prepare and
    /// scan blocks for uninitialised reads: a container never enters that. `hint` and `size` are
    /// dropped. Meant to be so.
    void* allocate(std::size_t size, const void*) { return Alloc(size); }
    void deallocate(void* ptr, std::size_t) { Free(ptr); }

private:
    friend struct kxm::AllocatorAccess;

    bool Usable() const { return mBase != nullptr || ReportNull(); }
    static bool ReportNull(); // the fatal error; false should that return

    void Swap(KXMBasAllocator& other) noexcept {
        KXMBasAllocatorBase* const mine = mBase;
        mBase = other.mBase;
        other.mBase = mine;
    }

    KXMBasAllocatorBase* mBase;
};

namespace kxm {

/// For adaptors and tests: which allocator a handle shares, and with how many.
struct AllocatorAccess {
    static const KXMBasAllocatorBase* base(const KXMBasAllocator& handle) noexcept {
        return handle.mBase;
    }
    static int count(const KXMBasAllocatorBase& base) noexcept { return base.mRefCount; }
};

} // namespace kxm

/// A block accounted for in operatorNewPool, given back by mem_trackingDelete. `name` is ignored and
/// may be null. When memory is short the new-handler is called and the request repeated; without one
/// std::bad_alloc is thrown. Never null. Any thread, as far as the pool's figures go.
KXMBASMEM_API void* mem_trackingNew(std::size_t size, const char* name);

/// The same, but WITHOUT A NEW-HANDLER IT TRIES FOR EVER instead of throwing: it never returns null,
/// whatever its name says.
KXMBASMEM_API void* mem_trackingNewNoThrow(std::size_t size, const char* name);

/// Gives back a block of the two above. Null is allowed.
KXMBASMEM_API void mem_trackingDelete(void* ptr, const char* name);
