#include <KXMBasMem.h>
#include <cstdio>
#include <kxm_utf8_names.h>

int main() {
    kxm::register_utf8_names();
    KXMBasMemPool pool(42, "client", nullptr);
    void* const block = pool.Alloc(100);
    std::printf("%d\n", block != nullptr && mem_malloc != nullptr ? pool.PoolID() : 0);
    pool.Free(block);
}
