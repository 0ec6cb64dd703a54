// Faults of arithmetic, and ends of a process that a crash handler is to report.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "faults/real_faults.h"
#include "mem_violations.h"
#include "platform/os.h"

using faults::call_from_here;
using faults::say;

KXM_NO_SANITIZE double mem_fp_division(double dividend, double divisor) {
    const volatile double by = divisor;
    return dividend / by;
}

KXM_NO_SANITIZE void mem_division_by_zero() {
    std::printf(" Performing division by zero\n");
    std::printf(" Result: %f\n", mem_fp_division(2.0, 0.0));
}

KXM_NO_SANITIZE void mem_fpe01() {
    say("Performing sqrt(-2) ...\n");
    say("sqrt(-2) = ");
    const volatile double one = 1.0, three = 3.0;
    std::printf("%.2f\n", std::sqrt(one - three));
    std::fflush(stdout);
}

KXM_NO_SANITIZE void mem_assert() {
    say("Trying to trigger an assert ...\n");
    os::assertion_failed("\"Assert has been triggered\" == 0", "mem_violations", 560);
}

// The chain below stays a chain: each calls the next from a frame of its own.

KXM_NO_SANITIZE void mem_abort() {
    say("Causing a deliberate abort ...\n");
    call_from_here(std::abort);
}

KXM_NO_SANITIZE void mem_function_C() {
    say("    In function C\n");
    call_from_here(mem_abort);
}

KXM_NO_SANITIZE void mem_function_B() {
    say("    In function B\n");
    call_from_here(mem_function_C);
}

KXM_NO_SANITIZE void mem_function_A() {
    say("    In function A\n");
    call_from_here(mem_function_B);
}

KXM_NO_SANITIZE void mem_deliberateAbort() {
    say("Testing crash via abort...\n");
    call_from_here(mem_function_A);
}

KXM_NO_SANITIZE void mem_mismatch_par(int, const char* text) {
    std::printf("# argument %s\n", text);
    faults::stay();
}
