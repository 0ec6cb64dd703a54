// See mem_Debugger.h.
#include "mem_Debugger.h"

#include <cstdio>

mem_Debugger* mem_Debugger::m_instance = nullptr;

mem_Debugger::mem_Debugger() {
    std::printf("Created mem_Debugger\n");
}

mem_Debugger::~mem_Debugger() {
    std::printf("Destroyed mem_Debugger\n");
}

mem_Debugger& mem_Debugger::Instance() {
    if (m_instance == nullptr) {
        m_instance = new mem_Debugger;
    }
    return *m_instance;
}

void mem_Debugger::Initialize() {
    std::printf("Initializing\n");
    std::fflush(nullptr);
    Instance();
}

void mem_Debugger::Finalize() {
    std::printf("Finalizing\n");
    std::fflush(nullptr);
    delete m_instance;
    m_instance = nullptr;
}
