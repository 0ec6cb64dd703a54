// Repeats recordings with allocators, each time in a new process, and sums up what those processes tell.
#pragma once

#include "event_reader.h"
#include "history.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace memtrack::replay {

/// An allocator with its options.
struct Candidate {
    std::string name; ///< as the user gave it
    std::string preload;
    std::vector<std::pair<std::string, std::optional<std::string>>> environment;
    std::vector<std::string> arguments; ///< of memtrack-replay
    bool is_heap = false;
};

/// "crt", "guarded", "aligned" or "heap", the last with options: "heap:tiny,trim=never,map=1G". Throws
/// UsageError.
Candidate back_end(const std::string& text);
/// Another allocator by the name of its shared library.
Candidate preloaded(const std::string& library);

/// A recording, as it will be repeated.
struct Recording {
    std::string base;
    std::uint64_t events = 0, ops = 0, slots = 0, threads = 0;
    std::uint64_t refused = 0, unknown = 0, lost = 0; ///< left out, or not as recorded
    Peak peak;
};
Recording survey(const std::string& base, Problems& problems, ByteCounter* counter);

/// What one process told. Bytes are above those of a process on the C runtime that allocated nothing.
struct Run {
    std::uint64_t nanoseconds = 0, refused = 0;
    std::uint64_t live = 0, footprint = 0, resident = 0;                ///< the most
    std::uint64_t live_then = 0, footprint_then = 0, resident_then = 0; ///< at the recording's peak
    std::uint64_t heap_high_water = 0;

    static const std::array<std::uint64_t Run::*, 9> figures; ///< all of these
};
inline constexpr std::array<std::uint64_t Run::*, 9> Run::figures = {
    &Run::nanoseconds,    &Run::refused,       &Run::live,
    &Run::footprint,      &Run::resident,      &Run::live_then,
    &Run::footprint_then, &Run::resident_then, &Run::heap_high_water};

class Runner {
public:
    /// With `touch`, each page of a block is written to when the block is had.
    explicit Runner(bool touch);

    struct Result {
        Run run;
        std::string failure; ///< in words; `run` means nothing then
    };
    Result repeat(const Recording& recording, const Candidate& candidate, ByteCounter* counter);

private:
    struct Told;
    Told start(const Recording& recording, const Candidate& candidate, ByteCounter* counter) const;

    std::string program_;
    bool touch_;
    std::uint64_t private_floor_ = 0, resident_floor_ = 0;
    std::string runtime_; // the C runtime's own file name
};

} // namespace memtrack::replay
