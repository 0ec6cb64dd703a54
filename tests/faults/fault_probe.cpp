// Started by the tests: commits one fault by its name, or, on prepared ground, one of those that need
// a stack and memory of their own. Small, so that tools start fast and little besides the fault
// happens.
#include "KXMBasCallStack.h"
#include "ground.h"
#include "mem_violations.h"
#include "violations.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

extern "C" void show_chain(int) {
    const KXMBasCallStack callstack(20, nullptr);
    std::fputs(callstack.Available() ? callstack.CStr() : "no call stack\n", stderr);
    std::fflush(stderr);
}

} // namespace

int main(int count, char** arguments) {
    const char* const what = count > 1 ? arguments[1] : "";
    if (std::strcmp(what, "chain") == 0) {
        std::signal(SIGABRT, show_chain);
        mem_deliberateAbort();
    } else if (std::strcmp(what, "right-parameters") == 0) {
        mem_mismatch_par(3, "a text");
    } else if (std::strncmp(what, "corruption", 10) == 0) {
        test::on_prepared_ground(what);
    } else if (const kxmdiag::Violation* const violation = kxmdiag::find_violation(what)) {
        violation->commit();
    } else {
        return 2;
    }
    return 0;
}
