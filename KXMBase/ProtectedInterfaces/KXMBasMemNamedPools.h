// The process-wide pools of the container families: each is a KXMBasMemPool of its own with a fixed
// number and name, made at first use and ended by Finalize:
//
//   KXMBasMemPoolVector& pool = KXMBasMemPoolVector::Instance();
//   pool.Activate();
//   void* block = pool.Alloc(8000);
//   ... pool.Free(block); ... omi_SingletonBase<KXMBasMemPoolVector>::Finalize();
//
// A fresh one allocates and does not count until Activate(). Finalize ends the account alone: blocks
// live on, and may be given back to the next pool of that name or to mem_Free.
//
// No lock: first use and Finalize belong to one thread; figures of several are approximate.
#pragma once

#include "KXMBasMemExport.h"
#include "KXMBasMemPool.h"
#include "mem_AllocationOperators.h"
#include "omi_SingletonBase.h"

class KXMBasMemPoolCow;
class KXMBasMemPoolVector;
class KXMBasMemPoolMap;

// One of each in a process, whichever component asks first.
template <> KXMBASMEM_API KXMBasMemPoolCow* omi_SingletonBase<KXMBasMemPoolCow>::instance;
template <> KXMBASMEM_API KXMBasMemPoolVector* omi_SingletonBase<KXMBasMemPoolVector>::instance;
template <> KXMBASMEM_API KXMBasMemPoolMap* omi_SingletonBase<KXMBasMemPoolMap>::instance;

/// Number 1001, "cow_containers".
class KXMBASMEM_API KXMBasMemPoolCow : public KXMBasMemPool,
                                       public omi_Singleton<KXMBasMemPoolCow>,
                                       public mem_AllocationOperators {
public:
    KXMBasMemPoolCow();
};

/// Number 1010, "KXMBasVector".
class KXMBASMEM_API KXMBasMemPoolVector : public KXMBasMemPool,
                                          public omi_Singleton<KXMBasMemPoolVector>,
                                          public mem_AllocationOperators {
public:
    KXMBasMemPoolVector();
};

/// Number 1011, "KXMBasMap".
class KXMBASMEM_API KXMBasMemPoolMap : public KXMBasMemPool,
                                       public omi_Singleton<KXMBasMemPoolMap>,
                                       public mem_AllocationOperators {
public:
    KXMBasMemPoolMap();
};
