// Kind and size of a drive, each asked of the system when it is first wanted.
//
// The name is what the system's own functions take: on Windows the root of a drive, "C:\\", or a share;
// on Linux the path of any file or folder, and the answers are those of the file system that it lies
// on. Free space is what the calling user may take, and both figures heed the user's quota on Windows.
// On Linux a file system that counts nothing, such as /proc, has a size of 0.
//
// Not thread-safe.
#pragma once

#include <cstdint>

#include "KXMBasMemExport.h"
#include "mem_Error.h"
#include "mem_String.h"

class KXMBASMEM_API mem_GetWindowsDriveInfo {
public:
    mem_GetWindowsDriveInfo(); ///< no drive
    explicit mem_GetWindowsDriveInfo(mem_String name);
    mem_GetWindowsDriveInfo(mem_GetWindowsDriveInfo const& other);
    mem_GetWindowsDriveInfo& operator=(mem_GetWindowsDriveInfo const& other); ///< not to itself

    bool IsValid() const { return valid; } ///< built from a name
    mem_String GetName() { return name; }

    /// 0 unknown or no name, 1 no such root, 2 removable, 3 fixed, 4 remote, 5 optical, 6 memory disk.
    /// Each call asks the system anew and adds a message of type 3 to the list, but without a name.
    unsigned int GetType();

    // Mebibytes, rounded down; of the working folder's drive where there is no name. The system is asked
    // once, by whichever comes first; when it refuses, both stay 0 and the list has a message of type 0.
    std::uint64_t GetTotalSpaceMbytes();
    std::uint64_t GetAvailableSpaceMbytes();

    mem_Error GetErrors() { return errors; }

private:
    void seedType();
    void seedSpace();

    mem_Error errors;
    bool foundError;
    std::uint64_t availableMbytes;
    std::uint64_t totalMbytes;
    mem_String name;
    std::uint32_t driveType;
    bool valid;
    bool spaceSeeded;
    bool typeSeeded; // set by nothing: meant, so that each GetType asks anew
};
