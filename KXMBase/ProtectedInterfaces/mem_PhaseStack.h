// The open phases of one thread, as a readable path: "ROOT->first->second". An object belongs to one
// thread; entries and exits are expected to come in pairs.
#pragma once

#include <cstdint>

#include "KXMBasMemExport.h"

class KXMBASMEM_API mem_PhaseStack {
public:
    enum { e_maxRoutineNameSize = 128, e_maxDepth = 1024, e_maxPathSize = 131072 };

    mem_PhaseStack();

    /// A name of 128 characters or more ends the process with an assertion. Beyond 1024 open phases
    /// or a path of 131071 characters the depth goes on counting, but the path keeps what it has room for.
    void EnterPhase(const char* name);

    /// Below "ROOT" the depth goes on counting: as many entries are then missing from later paths.
    void ExitPhase();

    const char* CurrentStack() const { return m_currentStack; }

private:
    void Append(const char* name);

    char m_names[e_maxDepth][e_maxRoutineNameSize];
    char m_currentStack[e_maxPathSize];
    std::int32_t m_depth;
};
