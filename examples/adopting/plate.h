/* The small solver that the programs here share: steady heat in a square plate of side x side elements, heated
   evenly and held at zero on its edge. Plain arrays that someone else allocates; C99 and C++. */
#ifndef plate_h
#define plate_h

#include <math.h>
#include <stddef.h>
#include <stdio.h>

enum {
    plate_neighbours = 9
}; /* most entries of a row: bilinear elements couple a node with those around it */

/** Sparse rows: row i has the entries starts[i] to starts[i + 1] - 1. */
struct plate_matrix {
    size_t rows;
    size_t* starts; /* rows + 1 */
    size_t* columns;
    double* values; /* rows * plate_neighbours at most, like the columns */
};

/** Elements along a side: 2 to 9999 from the command line, and 200 where that names no such number. */
static inline unsigned plate_side(int argc, char** argv) {
    unsigned side = 0;
    char rest = 0; /* none is to be behind the number */
    return argc > 1 && sscanf(argv[1], "%9u%c", &side, &rest) == 1 && side > 1 && side < 10000
               ? side
               : 200;
}

/** Unknown temperatures: those of the inner nodes. */
static inline size_t plate_rows(unsigned side) {
    const size_t inner = side - 1;
    return inner * inner;
}

/** Fills the arrays of `matrix`, which have room for plate_rows(side). */
static inline void plate_assemble(unsigned side, struct plate_matrix* matrix) {
    const size_t inner = side - 1;
    size_t entries = 0;
    matrix->rows = plate_rows(side);
    for (size_t row = 0; row < matrix->rows; ++row) {
        // NOLINTNEXTLINE(clang-analyzer-core.DivideZero): without inner nodes there are no rows
        const size_t x = row % inner, y = row / inner;
        matrix->starts[row] = entries;
        for (size_t ny = y > 0 ? y - 1 : 0; ny <= y + 1 && ny < inner; ++ny) {
            for (size_t nx = x > 0 ? x - 1 : 0; nx <= x + 1 && nx < inner; ++nx) {
                matrix->columns[entries] = ny * inner + nx;
                matrix->values[entries++] = nx == x && ny == y ? 8.0 / 3.0 : -1.0 / 3.0;
            }
        }
    }
    matrix->starts[matrix->rows] = entries;
}

/** result = matrix * vector; returns vector . result. */
static inline double plate_multiply(const struct plate_matrix* matrix, const double* vector,
                                    double* result) {
    double dot = 0.0;
    for (size_t row = 0; row < matrix->rows; ++row) {
        double sum = 0.0;
        for (size_t i = matrix->starts[row]; i < matrix->starts[row + 1]; ++i) {
            sum += matrix->values[i] * vector[matrix->columns[i]];
        }
        result[row] = sum;
        dot += vector[row] * sum;
    }
    return dot;
}

/** Conjugate gradients from zero; `work` has room for 3 * rows. Returns the temperature in the middle of a plate of
    side 1, which is about 0.07367. */
static inline double plate_solve(unsigned side, const struct plate_matrix* matrix,
                                 double* temperatures, double* work) {
    const size_t rows = matrix->rows;
    double *residual = work, *direction = work + rows, *product = work + 2 * rows;
    const double elements = side, load = 1.0 / (elements * elements);
    double square = 0.0;
    for (size_t i = 0; i < rows; ++i) {
        temperatures[i] = 0.0;
        residual[i] = direction[i] = load;
        square += load * load;
    }
    const double small_enough = square * 1e-20;
    for (size_t round = 0; round < rows && square > small_enough; ++round) {
        const double step = square / plate_multiply(matrix, direction, product);
        double next = 0.0;
        for (size_t i = 0; i < rows; ++i) {
            temperatures[i] += step * direction[i];
            residual[i] -= step * product[i];
            next += residual[i] * residual[i];
        }
        for (size_t i = 0; i < rows; ++i) {
            direction[i] = residual[i] + next / square * direction[i];
        }
        square = next;
    }
    return temperatures[rows / 2];
}

#endif
