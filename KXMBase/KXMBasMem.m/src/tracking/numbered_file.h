// One file of records: a 32-bit count, then the records, in two writes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/os.h"
#include "tracking/test_seam.h"

namespace tracking {

enum class Written { whole, count_short, records_short };

inline Written write_records(os::File file, std::int32_t count, const void* records,
                             std::size_t bytes) {
    if (test_seam::write(file, &count, sizeof count) != sizeof count) {
        return Written::count_short;
    }
    const bool whole = test_seam::write(file, records, bytes) == static_cast<std::int64_t>(bytes);
    return whole ? Written::whole : Written::records_short;
}

} // namespace tracking
