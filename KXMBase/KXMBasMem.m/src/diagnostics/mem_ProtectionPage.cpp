// See mem_ProtectionPage.h.
#include "mem_ProtectionPage.h"

#include <cstdio>

namespace {

std::uint32_t low(std::uint64_t value) {
    return static_cast<std::uint32_t>(value);
}

std::uint32_t low(void* pointer) {
    return low(std::uint64_t{reinterpret_cast<std::uintptr_t>(pointer)});
}

} // namespace

mem_ProtectionPage::mem_ProtectionPage(void* where, std::uint64_t bytes) {
    std::printf("Creating a protection page at address 0x%08x, size %d\n", low(where),
                static_cast<std::int32_t>(low(bytes)));
}

mem_ProtectionPage::~mem_ProtectionPage() {
    std::printf("DESTROYING a PROTECTION PAGE ...\n");
    std::printf("Destroying a protection page at address 0x%08x, size %d\n", low(address),
                static_cast<std::int32_t>(low(size)));
}
