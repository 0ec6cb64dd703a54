// How file names reach the operating system: the library asks a converter that the client supplies.
// Nothing is registered at first, and there is no fallback. The tracker needs one for its
// .phaseStack file; kxm_utf8_names.h in bindings/ is a ready one.
#pragma once

#include "KXMBasMemExport.h"

/// The client's conversion. `capacity` counts the elements of `buffer`, terminator included. The
/// result is the text, in the buffer or elsewhere; null means that there is none.
class KXMBASMEM_API KXMToOsBase {
public:
    virtual unsigned short const* ToUTF16(char const* source, unsigned short* buffer,
                                          int capacity) = 0;
    virtual char const* ToLocale(char const* source, char* buffer, int capacity) = 0;

protected:
    KXMToOsBase() {}
    ~KXMToOsBase() {} // the library never deletes one
};

class KXMBASMEM_API mem_ToOs {
public:
    /// Replaces the converter; null takes it away. It stays the client's. For start-up and shut-down:
    /// no lock is taken.
    static void Register(KXMToOsBase* toOs);

    // The registered converter's answer. Without one the process ends with an assertion.
    static unsigned short const* ToUTF16(char const* source, unsigned short* buffer, int capacity);
    static char const* ToLocale(char const* source, char* buffer, int capacity);

private:
    static KXMToOsBase* m_toOs;
};
