// Entry of the elasticity program.
#include "program.h"

#include <cstdio>

int main(int argc, char** argv) {
    // Standard output would take a buffer of its own from the C runtime.
    static char buffer[BUFSIZ];
    std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
    return elasticity::run_program(argc, argv);
}
