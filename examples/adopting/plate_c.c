/* The second way: the C interface in place of malloc and free, and what it answers when memory is short. */
#include "plate.h"

#include <KXMBasMem.h>
#include <stdio.h>
#include <stdlib.h>

/* [c-interface] */
int main(int argc, char** argv) {
    const unsigned side = plate_side(argc, argv);
    const size_t rows = plate_rows(side), entries = rows * plate_neighbours;
    struct plate_matrix matrix = {rows, mem_Malloc((rows + 1) * sizeof *matrix.starts),
                                  mem_Malloc(entries * sizeof *matrix.columns),
                                  mem_Malloc(entries * sizeof *matrix.values)};
    double* temperatures = mem_Malloc(rows * sizeof *temperatures);
    double* work = mem_Malloc(3 * rows * sizeof *work);
    int status = EXIT_FAILURE;

    if (matrix.starts && matrix.columns && matrix.values && temperatures && work) {
        plate_assemble(side, &matrix);
        printf("%.4f\n", plate_solve(side, &matrix, temperatures, work));
        status = EXIT_SUCCESS;
    } else { /* of two reasons, one is the limit that was set */
        fprintf(stderr, "plate: memory is short%s\n", mem_ErrorMemoryLimit() ? ": the limit" : "");
    }
    mem_Free(work); /* null is allowed */
    mem_Free(temperatures);
    mem_Free(matrix.values);
    mem_Free(matrix.columns);
    mem_Free(matrix.starts);
    return status;
}
/* [c-interface] */
