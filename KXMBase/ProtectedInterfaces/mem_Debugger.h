// A singleton that announces its own life on standard output. For start-up and shut-down: no lock is
// taken.
#pragma once

#include "KXMBasMemExport.h"
#include "mem_AllocationOperators.h"

class KXMBASMEM_API mem_Debugger : public mem_AllocationOperators {
public:
    static mem_Debugger& Instance(); ///< created on first use
    static void Initialize();        ///< announces itself and creates the instance
    static void Finalize(); ///< announces itself and destroys the instance, if there is one

private:
    mem_Debugger();
    ~mem_Debugger();
    mem_Debugger(const mem_Debugger&);
    mem_Debugger& operator=(const mem_Debugger&);

    static mem_Debugger* m_instance;
};
