// Another component of the process, which knows the named pools by their header as a client does.
#include "component.h"

KXMBasMemPool* pools_of_component(int id) {
    switch (id) {
    case 1001:
        return &KXMBasMemPoolCow::Instance();
    case 1010:
        return &KXMBasMemPoolVector::Instance();
    case 1011:
        return &KXMBasMemPoolMap::Instance();
    }
    return nullptr;
}

void end_map_of_component() {
    omi_SingletonBase<KXMBasMemPoolMap>::Finalize();
}
