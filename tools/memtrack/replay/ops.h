// What memtrack tells memtrack-replay to do, as both programs see it: they lie side by side and are of one
// build, so this is no file format.
//
// memtrack-replay asks for operations with one byte on its standard output, `more`, and is given a 32-bit
// count and that many operations on its standard input; a count of 0 is the end. So only one of the two works
// at a time, and the one that is measured has the machine. At the end it writes its figures, a line each, a
// name and a value.
#pragma once

#include <cstddef>
#include <cstdint>

namespace memtrack::replay {

enum class Kind : std::uint32_t {
    allocate, ///< a block in `slot`, which is empty
    clear,    ///< likewise, zeroed
    resize,   ///< the block in `slot`
    release,  ///< the block in `slot`
    peak      ///< most bytes are held now, by the recording
};

struct Op {
    std::uint64_t size; ///< bytes asked for
    std::uint32_t slot; ///< below the number of slots told on the command line
    Kind kind;
};
static_assert(sizeof(Op) == 16);

inline constexpr char more = '+';
inline constexpr std::size_t most_ops = 65536; ///< at a time

/// Exit statuses of memtrack-replay, unlike that of an abort on either system: what it was told cannot be
/// done; what it was given makes no sense.
inline constexpr int not_possible = 13, not_understood = 14;

} // namespace memtrack::replay
