// Entry of elasticity_mpi: the same job on the ranks that mpirun starts.
#include "mpi_team.h"
#include "program.h"

#include <cstdio>

int main(int argc, char** argv) {
    // Standard output would take a buffer of its own from the C runtime.
    static char buffer[BUFSIZ];
    std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
    return elasticity::run_program(argc, argv, elasticity::join_mpi_team);
}
