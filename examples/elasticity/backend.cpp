// Which environment variable chooses which back end. They count by being present.
#include "backend.h"

#include "input_error.h"
#include "system.h"

#include <KXMBasMem.h>

namespace elasticity {

namespace {

struct Choice {
    const char* backend;
    const char* variable;
};

// In order of precedence; without any of them it is the C runtime.
constexpr Choice choices[] = {
    {"guarded", "KXA_DEADBEEF"},
    {"heap", "KXQ_DLALLOCATOR"},
    {"aligned", "KXQ_USE_ALIGNED_MEMORY"},
};
constexpr const char* keeps_heap_off = "KXQ_CRTMALLOC";

// Brings one variable to the wanted state; true when that changed something.
bool bring(const char* variable, bool present) {
    if (system::environment_has(variable) == present)
        return false;
    if (!system::set_environment(variable, present))
        throw InputError({"the environment variable ", variable, " cannot be changed"});
    return true;
}

} // namespace

const char* present_backend() {
    if (system::environment_has("KXA_DEADBEEF"))
        return "guarded";
    if (mem_usingDL() != 0)
        return "heap";
    return system::environment_has("KXQ_USE_ALIGNED_MEMORY") ? "aligned" : "crt";
}

std::optional<int> use_backend(std::string_view name, char** argv) {
    if (name.empty())
        return std::nullopt;
    bool changed = bring(keeps_heap_off, false);
    for (const Choice& choice : choices)
        changed = bring(choice.variable, name == choice.backend) || changed;
    if (changed) {
        if (const std::optional<int> status = system::start_again(argv))
            return status;
        throw InputError({"the program cannot be started again for back end ", name});
    }
    if (name != present_backend())
        throw InputError({"the memory library has no back end \"", name, "\""});
    return std::nullopt;
}

} // namespace elasticity
