// An empty class that components name in their own declarations, with one global object of it.
#pragma once

#include "KXMBasMemExport.h"

class KXMBASMEM_API KXMBasOmiTableAllocator {
public:
    KXMBasOmiTableAllocator();
    ~KXMBasOmiTableAllocator();
    KXMBasOmiTableAllocator(const KXMBasOmiTableAllocator&) = default;
    KXMBasOmiTableAllocator& operator=(const KXMBasOmiTableAllocator&);
};

extern KXMBASMEM_API KXMBasOmiTableAllocator AAA;
