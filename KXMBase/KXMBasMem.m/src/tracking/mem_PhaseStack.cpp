// See mem_PhaseStack.h. Depth and path are not checked against their limits and below the root: a
// caller pairs its calls. What would lie outside the object is left out here.
#include "mem_PhaseStack.h"

#include <cstdio>
#include <cstring>

#include "platform/os.h"

namespace {

constexpr char root[] = "ROOT";

} // namespace

// cppcheck-suppress uninitMemberVar ; names beyond the depth are not read
mem_PhaseStack::mem_PhaseStack() : m_depth(0) {
    std::memcpy(m_currentStack, root, sizeof root);
}

void mem_PhaseStack::Append(const char* name) {
    const std::size_t used = std::strlen(m_currentStack);
    std::snprintf(m_currentStack + used, e_maxPathSize - used, "->%s", name);
}

void mem_PhaseStack::EnterPhase(const char* name) {
    const std::size_t length = std::strlen(name);
    if (length >= e_maxRoutineNameSize) {
        os::assertion_failed("strlen(phaseName) < e_maxRoutineNameSize", "mem_PhaseStack",
                             __LINE__);
    }
    if (m_depth >= 0 && m_depth < e_maxDepth) {
        std::memcpy(m_names[m_depth], name, length + 1);
    }
    Append(name);
    ++m_depth;
}

void mem_PhaseStack::ExitPhase() {
    --m_depth;
    // Built anew from the names: one pass over the open phases.
    std::memcpy(m_currentStack, root, sizeof root);
    const std::int32_t kept = m_depth < e_maxDepth ? m_depth : std::int32_t{e_maxDepth};
    for (std::int32_t i = 0; i < kept; ++i) {
        Append(m_names[i]);
    }
}
