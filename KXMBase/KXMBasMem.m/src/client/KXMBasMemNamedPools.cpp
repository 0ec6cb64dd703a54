// See KXMBasMemNamedPools.h.
#include "KXMBasMemNamedPools.h"

template <> KXMBasMemPoolCow* omi_SingletonBase<KXMBasMemPoolCow>::instance = nullptr;
template <> KXMBasMemPoolVector* omi_SingletonBase<KXMBasMemPoolVector>::instance = nullptr;
template <> KXMBasMemPoolMap* omi_SingletonBase<KXMBasMemPoolMap>::instance = nullptr;

KXMBasMemPoolCow::KXMBasMemPoolCow() : KXMBasMemPool(1001, "cow_containers", nullptr) {}

KXMBasMemPoolVector::KXMBasMemPoolVector() : KXMBasMemPool(1010, "KXMBasVector", nullptr) {}

KXMBasMemPoolMap::KXMBasMemPoolMap() : KXMBasMemPool(1011, "KXMBasMap", nullptr) {}
