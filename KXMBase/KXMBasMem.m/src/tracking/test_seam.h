// Where tests stand between the tracking files and the system, to fill its disk. In the library that is
// shipped there is nothing here.
#pragma once

#include "platform/os.h"

namespace tracking::test_seam {

#if defined(KXM_TEST_SEAMS)
/// Bytes that the system still takes.
inline std::int64_t room = INT64_MAX;

inline std::int64_t write(os::File file, const void* data, std::size_t size) {
    const auto wanted = static_cast<std::int64_t>(size);
    const std::int64_t taken = wanted < room ? wanted : room;
    room -= taken;
    return os::file_write(file, data, static_cast<std::size_t>(taken));
}
#else
inline std::int64_t write(os::File file, const void* data, std::size_t size) {
    return os::file_write(file, data, size);
}
#endif

} // namespace tracking::test_seam
