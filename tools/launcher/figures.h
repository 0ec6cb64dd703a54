// What the processes of a run leave for the launcher to tell at its end, in memory that all of them share:
// a process that dies by a signal has no moment of its own to tell anything. The launcher makes the memory
// and gives its name in the environment; each process takes a record for itself when it starts, and so does
// the child of a fork. A name that cannot be opened, as in another user's process, costs nothing but these
// figures. Both sides are built from this file and installed together.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kxmrun {

// Environment: what the launcher tells the library in the process.
inline constexpr const char* settings_variable =
    "KXMRUN_SETTINGS";                                          ///< name=value pairs behind commas
inline constexpr const char* record_variable = "KXMRUN_RECORD"; ///< folder and name, unexpanded
inline constexpr const char* figures_variable = "KXMRUN_FIGURES"; ///< path of the shared memory

enum Event : std::uint32_t {
    recording = 1,        ///< its events are recorded
    saved = 2,            ///< the recording was written to its end
    not_saved = 4,        ///< it could not be written
    other_malloc = 8,     ///< the program brings its own malloc, so nothing came here
    replaced = 16,        ///< it went on as another program
    ended_by_itself = 32, ///< the program has ended its recording, as a client of the library may
};

/// One process, or one program that a process was until it became another.
struct ProcessFigures {
    std::int32_t pid;
    std::int32_t rank;
    std::atomic<std::uint32_t> events;
    std::atomic<std::uint32_t> taken; ///< 1 when the fields above and the texts are written
    std::atomic<std::uint64_t> peak; ///< highest footprint of the heap, bytes; 0 on other back ends
    std::uint64_t own;               ///< of that, what the recorder holds, bytes
    std::atomic<std::uint64_t> refused_by_limit, refused_by_system;
    std::atomic<std::uint64_t> largest_refused; ///< bytes
    std::atomic<std::uint64_t> recorded;        ///< events
    std::atomic<std::uint64_t> resident;        ///< highest, bytes, as of its end
    char program[64];
    char record[376]; ///< expanded, with its folder; cut at the end
};
static_assert(sizeof(ProcessFigures) == 512);
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

struct Figures {
    static constexpr std::uint64_t mark = 0x31'6e75'726d'786b; // "kxmrun1"
    static constexpr std::uint32_t most = 16384;

    std::uint64_t magic;
    std::atomic<std::uint32_t> count; ///< records asked for, perhaps more than there are
    std::atomic<std::uint32_t> plain_name_taken;
    std::uint64_t unused[62];
    ProcessFigures processes[most];
};
static_assert(offsetof(Figures, processes) == 512);

} // namespace kxmrun
