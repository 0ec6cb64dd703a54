// See mem_ProtectionPage.h.
#include "mem_ProtectionPage.h"

#include <cstdio>

namespace {

void announce(const char* what, void* address, std::uint64_t size) {
    std::printf("%s a protection page at address 0x%08x, size %d\n", what,
                static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(address)),
                static_cast<std::int32_t>(static_cast<std::uint32_t>(size)));
}

} // namespace

mem_ProtectionPage::mem_ProtectionPage(void* where, std::uint64_t bytes) {
    announce("Creating", where, bytes);
}

mem_ProtectionPage::~mem_ProtectionPage() {
    std::fputs("DESTROYING a PROTECTION PAGE ...\n", stdout);
    announce("Destroying", address, size);
}
