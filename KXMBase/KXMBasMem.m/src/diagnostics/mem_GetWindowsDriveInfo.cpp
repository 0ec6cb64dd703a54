// See mem_GetWindowsDriveInfo.h.
#include "mem_GetWindowsDriveInfo.h"

#include "diagnostics/test_seam.h"

template class KXMBASMEM_API mem_Stack<mem_GetWindowsDriveInfo>;

namespace {

using diagnostics::test_seam::provider;

std::uint64_t megabytes(const os::DriveSpace& space, std::uint64_t clusters) {
    return (std::uint64_t{space.sectors_per_cluster} * space.bytes_per_sector * clusters) >> 20;
}

} // namespace

mem_GetWindowsDriveInfo::mem_GetWindowsDriveInfo()
    : errors(), foundError(false), availableMbytes(0), totalMbytes(0), name(), driveType(0),
      valid(false), spaceSeeded(false), typeSeeded(false) {}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is given
mem_GetWindowsDriveInfo::mem_GetWindowsDriveInfo(mem_String root) : mem_GetWindowsDriveInfo() {
    name = root;
    valid = true;
}

mem_GetWindowsDriveInfo::mem_GetWindowsDriveInfo(mem_GetWindowsDriveInfo const& other) = default;

mem_GetWindowsDriveInfo&
mem_GetWindowsDriveInfo::operator=(mem_GetWindowsDriveInfo const& other) = default;

unsigned int mem_GetWindowsDriveInfo::GetType() {
    if (!typeSeeded) {
        seedType();
    }
    return driveType;
}

std::uint64_t mem_GetWindowsDriveInfo::GetTotalSpaceMbytes() {
    if (!spaceSeeded) {
        seedSpace();
    }
    return totalMbytes;
}

std::uint64_t mem_GetWindowsDriveInfo::GetAvailableSpaceMbytes() {
    if (!spaceSeeded) {
        seedSpace();
    }
    return availableMbytes;
}

void mem_GetWindowsDriveInfo::seedType() {
    if (!name.IsValid()) {
        driveType = 0;
        return;
    }
    errors.AddError(3, "Querying drive " + name + ".");
    driveType = provider.drive_type(name);
}

void mem_GetWindowsDriveInfo::seedSpace() {
    os::DriveSpace space{};
    if (provider.drive_space(name, space)) {
        totalMbytes = megabytes(space, space.total_clusters);
        availableMbytes = megabytes(space, space.free_clusters);
    } else {
        errors.AddError(0, "Internal error querying the drive " + name);
        foundError = true;
    }
    spaceSeeded = true;
}
