#include <KXMBasMem.h>
#include <cstdio>
#include <kxm_memory_resource.h>
#include <kxm_utf8_names.h>
#include <vector>

int main() {
    kxm::register_utf8_names();
    KXMBasMemPool pool(42, "client", nullptr);
    kxm::PoolResource resource(pool);
    const std::pmr::vector<int> numbers(10, 4, &resource);
    const std::vector<int, kxm::PoolAllocator<int>> more(numbers.begin(), numbers.end(), pool);
    void* const block = pool.Alloc(100);
    std::printf("%d\n",
                block != nullptr && mem_malloc != nullptr && more[9] == 4 ? pool.PoolID() : 0);
    pool.Free(block);
}
