// The Fortran kernels as C++ sees them. Sizes, layouts and failure codes are told in the .f90
// files.
#pragma once

#include <cstdint>

namespace elasticity {

extern "C" {

void elasticity_stiffness(int count, int nodes, const double* coordinates, double lambda, double mu,
                          double* stiffness, int* failed);
void elasticity_stress(int count, int nodes, const double* coordinates, const double* displacement,
                       double lambda, double mu, double* stress, int* failed);

void block_product(std::int32_t rows, const std::int64_t* start, const std::int32_t* column,
                   const double* block, const double* x, double* y);
void block_diagonal_inverse(std::int32_t rows, const std::int64_t* start,
                            const std::int32_t* column, const double* block, double* inverse,
                            std::int32_t* failed);
void block_diagonal_apply(std::int32_t rows, const double* inverse, const double* r, double* z);
double vector_dot(std::int64_t n, const double* x, const double* y);
void vector_axpy(std::int64_t n, double a, const double* x, double* y);
void vector_xpby(std::int64_t n, const double* x, double b, double* y);

void coarse_project(std::int32_t rows, const std::int64_t* start, const std::int32_t* column,
                    const double* block, const std::int32_t* box, const double* arm,
                    std::int32_t boxes, double* coarse);
void coarse_factor(std::int32_t n, double* coarse);
/// Adds up the projected residuals of all processes.
typedef void (*Combine)(double* values, std::int32_t count, void* context);
void coarse_apply(std::int32_t rows, const std::int32_t* box, const double* arm, std::int32_t boxes,
                  const double* factor, const double* r, double* z, Combine combine, void* context,
                  int* failed);

} // extern "C"

} // namespace elasticity
