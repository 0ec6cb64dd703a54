// The program before: everything comes from the language. It is linked twice, once as it stands and once with
// KXMBasMemGlobalNew, and runs under the launcher as it is.
#include "plate.h"

#include <cstdio>
#include <vector>

// [before]
int main(int argc, char** argv) {
    const unsigned side = plate_side(argc, argv);
    const std::size_t rows = plate_rows(side);
    std::vector<std::size_t> starts(rows + 1), columns(rows * plate_neighbours);
    std::vector<double> values(rows * plate_neighbours), temperatures(rows), work(3 * rows);

    plate_matrix matrix{rows, starts.data(), columns.data(), values.data()};
    plate_assemble(side, &matrix);
    const double middle = plate_solve(side, &matrix, temperatures.data(), work.data());
    std::printf("%.4f\n", middle);
}
// [before]
