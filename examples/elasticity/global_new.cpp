// The global operators new and delete, by way of the library, so that what the C++ runtime's own
// classes allocate goes the same way as the job's containers.
//
// An unsized delete does not tell the size, and the count of live bytes needs it; so each block
// carries its size and its true start in the sixteen bytes before what the caller sees. That also
// restores the sixteen-byte alignment of operator new on the back end that aligns to eight.
#include "memory.h"

#include <cstdint>
#include <cstring>
#include <new>

namespace {

struct Header {
    void* start;
    std::size_t bytes;
};

constexpr std::size_t new_alignment = __STDCPP_DEFAULT_NEW_ALIGNMENT__;
constexpr std::size_t room = sizeof(Header) + new_alignment - elasticity::guaranteed_alignment;
static_assert(sizeof(Header) == 16 && new_alignment == 16);

void* place(void* start, std::size_t bytes, std::size_t alignment) noexcept {
    const auto after = reinterpret_cast<std::uintptr_t>(start) + sizeof(Header);
    const std::size_t padding = (alignment - after % alignment) % alignment;
    char* user = static_cast<char*>(start) + sizeof(Header) + padding;
    const Header header{start, bytes};
    std::memcpy(user - sizeof header, &header, sizeof header);
    return user;
}

Header header_of(void* user) noexcept {
    Header header;
    std::memcpy(&header, static_cast<char*>(user) - sizeof header, sizeof header);
    return header;
}

void* take(std::size_t size) {
    if (size > SIZE_MAX - room)
        throw std::bad_alloc{};
    return place(elasticity::allocate(size + room), size + room, new_alignment);
}

void give(void* user) noexcept {
    if (user == nullptr)
        return;
    const Header header = header_of(user);
    elasticity::release(header.start, header.bytes);
}

void* take(std::size_t size, std::align_val_t align) {
    const auto alignment = static_cast<std::size_t>(align);
    const std::size_t extra = sizeof(Header) + alignment;
    if (size > SIZE_MAX - extra)
        throw std::bad_alloc{};
    return place(elasticity::allocate_aligned(size + extra, alignment), size + extra, alignment);
}

void give(void* user, std::align_val_t) noexcept {
    if (user == nullptr)
        return;
    const Header header = header_of(user);
    elasticity::release_aligned(header.start, header.bytes);
}

template <class... Arguments> void* take_or_null(Arguments... arguments) noexcept {
    try {
        return take(arguments...);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

} // namespace

// clang-format off
void* operator new(std::size_t size) { return take(size); }
void* operator new[](std::size_t size) { return take(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return take_or_null(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return take_or_null(size); }
void* operator new(std::size_t size, std::align_val_t align) { return take(size, align); }
void* operator new[](std::size_t size, std::align_val_t align) { return take(size, align); }
void* operator new(std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept { return take_or_null(size, align); }
void* operator new[](std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept { return take_or_null(size, align); }

void operator delete(void* block) noexcept { give(block); }
void operator delete[](void* block) noexcept { give(block); }
void operator delete(void* block, std::size_t) noexcept { give(block); }
void operator delete[](void* block, std::size_t) noexcept { give(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { give(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { give(block); }
void operator delete(void* block, std::align_val_t align) noexcept { give(block, align); }
void operator delete[](void* block, std::align_val_t align) noexcept { give(block, align); }
void operator delete(void* block, std::size_t, std::align_val_t align) noexcept { give(block, align); }
void operator delete[](void* block, std::size_t, std::align_val_t align) noexcept { give(block, align); }
void operator delete(void* block, std::align_val_t align, const std::nothrow_t&) noexcept { give(block, align); }
void operator delete[](void* block, std::align_val_t align, const std::nothrow_t&) noexcept { give(block, align); }
// clang-format on
