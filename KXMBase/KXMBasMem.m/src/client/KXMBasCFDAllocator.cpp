// The three instances of the solver's numeric allocators, and the callbacks they begin with.
#include "KXMBasCFDAllocator.h"

#include "mem_Interface.h"

int KXMCfdDefaultMalloc(std::size_t bytes, int, const char* const, const char* const,
                        const char* const, void** result) {
    *result = mem_Malloc(bytes);
    return 0;
}

int KXMCfdDefaultFree(void* p, int, const char* const, const char* const, const char* const) {
    mem_Free(p);
    return 0;
}

void* operator new(std::size_t, void* where, KXMBasPlacement) noexcept {
    return where;
}

void operator delete(void*, void*, KXMBasPlacement) noexcept {}

namespace {

constexpr const char* source = "KXMBasCFDAllocator";
constexpr const char* component = "KXMBasAlloc";
// As callbacks have always been told, wherever the calls stand now.
constexpr int allocate_line = 77, deallocate_line = 83;

template <class T> struct Functions;
template <> struct Functions<int> {
    static constexpr const char* allocate = "KXMBasCFDAllocator<int>::allocate";
    static constexpr const char* deallocate = "KXMBasCFDAllocator<int>::deallocate";
};
template <> struct Functions<unsigned int> {
    static constexpr const char* allocate = "KXMBasCFDAllocator<unsigned int>::allocate";
    static constexpr const char* deallocate = "KXMBasCFDAllocator<unsigned int>::deallocate";
};
template <> struct Functions<double> {
    static constexpr const char* allocate = "KXMBasCFDAllocator<double>::allocate";
    static constexpr const char* deallocate = "KXMBasCFDAllocator<double>::deallocate";
};

} // namespace

template <class T>
typename KXMBasCFDAllocator<T>::AllocFunc KXMBasCFDAllocator<T>::s_allocateFunc =
    KXMCfdDefaultMalloc;

template <class T>
typename KXMBasCFDAllocator<T>::FreeFunc KXMBasCFDAllocator<T>::s_deallocateFunc =
    KXMCfdDefaultFree;

template <class T> void KXMBasCFDAllocator<T>::SetAllocFunc(AllocFunc fn) {
    s_allocateFunc = fn;
}

template <class T> void KXMBasCFDAllocator<T>::SetFreeFunc(FreeFunc fn) {
    s_deallocateFunc = fn;
}

template <class T> T* KXMBasCFDAllocator<T>::allocate(std::size_t n, const void*) {
    void* result = nullptr;
    s_allocateFunc(n * sizeof(T), allocate_line, Functions<T>::allocate, source, component,
                   &result);
    return static_cast<T*>(result);
}

template <class T> void KXMBasCFDAllocator<T>::deallocate(T* p, std::size_t) {
    s_deallocateFunc(p, deallocate_line, Functions<T>::deallocate, source, component);
}

template <class T> void KXMBasCFDAllocator<T>::construct(T* p, const T& value) {
    new (p, KXMBAS_PLACEMENT) T(value);
}

template <class T> void KXMBasCFDAllocator<T>::destroy(T*) {}

template <class T> std::size_t KXMBasCFDAllocator<T>::max_size() const {
    return 0xFFFFFFFF;
}

template class KXMBASMEM_API KXMBasCFDAllocator<int>;
template class KXMBASMEM_API KXMBasCFDAllocator<unsigned int>;
template class KXMBASMEM_API KXMBasCFDAllocator<double>;
