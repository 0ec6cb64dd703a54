// See mem_ToOs.h.
#include "mem_ToOs.h"

#include "platform/os.h"

KXMToOsBase* mem_ToOs::m_toOs = nullptr;

void mem_ToOs::Register(KXMToOsBase* toOs) {
    m_toOs = toOs;
}

unsigned short const* mem_ToOs::ToUTF16(char const* source, unsigned short* buffer, int capacity) {
    if (m_toOs == nullptr) {
        os::assertion_failed("m_toOs", "mem_ToOs", 22);
    }
    return m_toOs->ToUTF16(source, buffer, capacity);
}

char const* mem_ToOs::ToLocale(char const* source, char* buffer, int capacity) {
    if (m_toOs == nullptr) {
        os::assertion_failed("m_toOs", "mem_ToOs", 28);
    }
    return m_toOs->ToLocale(source, buffer, capacity);
}
