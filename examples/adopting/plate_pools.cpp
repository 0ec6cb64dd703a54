// The third way: containers on pools that account for what they hold, and a class with operators of its own.
#include "plate.h"

#include <KXMBasMem.h>
#include <cstdio>
#include <kxm_allocator.h>
#include <memory>
#include <vector>

// [pools]
template <class T> using PoolVector = std::vector<T, kxm::PoolAllocator<T>>;

// Of more than 128 bytes, so its own `new` and `delete` are those of mem_AllocationOperators.
class Plate : public mem_AllocationOperators {
public:
    Plate(unsigned side, KXMBasMemPool& matrix_pool, KXMBasMemPool& vector_pool)
        : side_(side), starts_(plate_rows(side) + 1, 0, matrix_pool),
          columns_(plate_rows(side) * plate_neighbours, 0, matrix_pool),
          values_(plate_rows(side) * plate_neighbours, 0.0, matrix_pool),
          temperatures_(plate_rows(side), 0.0, vector_pool),
          work_(3 * plate_rows(side), 0.0, vector_pool) {}

    double solve() {
        plate_matrix matrix{0, starts_.data(), columns_.data(), values_.data()};
        plate_assemble(side_, &matrix);
        return plate_solve(side_, &matrix, temperatures_.data(), work_.data());
    }

private:
    unsigned side_;
    PoolVector<std::size_t> starts_, columns_;
    PoolVector<double> values_, temperatures_, work_;
};

int main(int argc, char** argv) {
    const unsigned side = plate_side(argc, argv);
    KXMBasMemPool matrix_pool(2000, "matrix", nullptr), vector_pool(2001, "vectors", nullptr);
    matrix_pool.Activate();
    vector_pool.Activate();
    {
        const std::unique_ptr<Plate> plate(new Plate(side, matrix_pool, vector_pool));
        std::printf("%.4f\n", plate->solve());
    }
    if (mem_usingDL() != 0) { // a pool's figures mean something on the heap alone
        for (KXMBasMemPool* const pool : {&matrix_pool, &vector_pool}) {
            std::fprintf(stderr, "%s: %zu bytes at most, %zu now\n", pool->PoolName(),
                         pool->MemoryPeak(), pool->MemoryCurrent());
        }
    }
}
// [pools]
