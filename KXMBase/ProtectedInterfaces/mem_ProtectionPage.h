// Announces a protection page on standard output when it is built and when it is destroyed. It protects
// nothing.
#pragma once

#include <cstdint>

#include "KXMBasMemExport.h"
#include "mem_AllocationOperatorsTiny.h"

class KXMBASMEM_API mem_ProtectionPage : public mem_AllocationOperatorsTiny {
public:
    /// Prints the low 32 bits of its arguments and does not keep them: the end is announced with
    /// an address and a size of 0.
    mem_ProtectionPage(void* address, std::uint64_t size);
    ~mem_ProtectionPage();

private:
    void* address = nullptr;
    std::uint64_t size = 0;
};
