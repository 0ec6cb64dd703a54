// Allocators in the standard's form for the numeric arrays of the flow solver, of int, unsigned int and
// double. Each of the three has two callbacks of its own, so that a client can route one kind of element
// elsewhere and leave the others on the library:
//
//   KXMBasCFDAllocator<double>::SetAllocFunc(my_allocate);
//   KXMBasCFDAllocator<double>::SetFreeFunc(my_free);
//
// UNLIKE A STANDARD ALLOCATOR'S, a request that is refused is a null: no exception, no report. What a
// callback returns is not looked at; only the pointer that it leaves behind counts.
//
// The callbacks are plain pointers without a lock: set them before the allocators are in use. They are
// valid from load on.
#pragma once

#include <cstddef>

#include "KXMBasMemExport.h"

/// `*result` = mem_Malloc(bytes), which may be null; the other arguments are not looked at. Returns 0.
KXMBASMEM_API int KXMCfdDefaultMalloc(std::size_t bytes, int line, const char* const function,
                                      const char* const file, const char* const component,
                                      void** result);
/// mem_Free(p). Returns 0.
KXMBASMEM_API int KXMCfdDefaultFree(void* p, int line, const char* const function,
                                    const char* const file, const char* const component);

/// Selects the placement form below. Its value says nothing.
enum KXMBasPlacement { KXMBAS_PLACEMENT };

/// Returns `where`. With a null there, a new expression builds nothing and is null itself.
KXMBASMEM_API void* operator new(std::size_t size, void* where, KXMBasPlacement) noexcept;
/// What the language calls by itself when a constructor throws: does nothing.
KXMBASMEM_API void operator delete(void* ptr, void* where, KXMBasPlacement) noexcept;

/// The instances of int, unsigned int and double are the library's; there are no others.
template <class T> class KXMBASMEM_TEMPLATE KXMBasCFDAllocator {
public:
    typedef T value_type;
    typedef T* pointer;
    typedef const T* const_pointer;
    typedef T& reference;
    typedef const T& const_reference;
    typedef std::size_t size_type;
    typedef std::ptrdiff_t difference_type;
    template <class U> struct rebind { typedef KXMBasCFDAllocator<U> other; };

    /// Leaves the block's address in `*result`. `bytes` is the size; the texts name the caller.
    typedef int (*AllocFunc)(std::size_t bytes, int line, const char* const function,
                             const char* const file, const char* const component, void** result);
    typedef int (*FreeFunc)(void* p, int line, const char* const function, const char* const file,
                            const char* const component);

    // Not checked for null. Blocks of the former callback still go to the new one.
    static void SetAllocFunc(AllocFunc fn);
    static void SetFreeFunc(FreeFunc fn);

    /// `n` elements, uninitialised, or null. The product of the sizes may wrap. `hint` is ignored.
    T* allocate(std::size_t n, const void* hint = nullptr);
    void deallocate(T* p, std::size_t n); ///< `n` is ignored
    void construct(T* p, const T& value); ///< nothing when `p` is null
    void destroy(T* p);                   ///< nothing
    std::size_t max_size() const;         ///< 0xFFFFFFFF, whatever the element's size

    friend bool operator==(const KXMBasCFDAllocator&, const KXMBasCFDAllocator&) { return true; }
    friend bool operator!=(const KXMBasCFDAllocator&, const KXMBasCFDAllocator&) { return false; }

private:
    static AllocFunc s_allocateFunc;
    static FreeFunc s_deallocateFunc;
};
