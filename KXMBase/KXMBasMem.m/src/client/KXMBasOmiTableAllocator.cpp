// An empty class with operations that do nothing; the object AAA stands among the library's
// statics.
#include "KXMBasOmiTableAllocator.h"

KXMBasOmiTableAllocator::KXMBasOmiTableAllocator() {}

KXMBasOmiTableAllocator::~KXMBasOmiTableAllocator() {}

KXMBasOmiTableAllocator& KXMBasOmiTableAllocator::operator=(const KXMBasOmiTableAllocator&) {
    return *this;
}
