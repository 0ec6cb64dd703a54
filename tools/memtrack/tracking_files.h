// The formats of the files that a tracked run leaves, as docs/tracking-files.md has them, and the smaller two
// of the three read: the table of phase paths, and a client's own phase events. The transactions are read
// by EventReader. Nothing here stands on the library that wrote the files.
#pragma once

#include "problems.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace memtrack {

enum class Type : std::int32_t {
    malloc_,
    free_,
    new_,
    delete_,
    realloc_,
    calloc_,
    valloc_,
    release,
    acquire
};
inline constexpr std::size_t type_count = 9;
const char* type_name(Type type);

inline constexpr bool is_allocation(Type type) {
    return type == Type::malloc_ || type == Type::new_ || type == Type::calloc_ ||
           type == Type::valloc_;
}
inline constexpr bool is_release(Type type) {
    return type == Type::free_ || type == Type::delete_;
}

inline constexpr std::uint64_t no_size = ~std::uint64_t{0};

/// A record as it lies in the file, which is read in place.
struct Transaction {
    std::uint64_t pointer = 0;
    std::uint64_t old_pointer = 0;
    Type type = Type::malloc_;
    std::int32_t id = 0; ///< wraps after 2^31 events; EventReader gives numbers that do not
    std::uint64_t size = 0;
    std::int32_t thread = 0;
    std::int32_t stack = 0; ///< without meaning on a free

    bool has_stack() const { return type != Type::free_ && stack >= 0; }
};
static_assert(std::endian::native == std::endian::little, "records are read in place");
static_assert(sizeof(Transaction) == 40 && offsetof(Transaction, old_pointer) == 8 &&
              offsetof(Transaction, type) == 16 && offsetof(Transaction, id) == 20 &&
              offsetof(Transaction, size) == 24 && offsetof(Transaction, thread) == 32 &&
              offsetof(Transaction, stack) == 36);

inline constexpr std::int32_t full_file = 131072; ///< transactions in every file but the last
inline constexpr std::size_t count_bytes = 4;     ///< that each file begins with

/// The base name of a run, from it or from the name of any of its files.
std::string base_name(const std::string& argument);

/// Numbers that follow "<base><mark>" in the names of the files there are, ascending.
std::vector<std::int32_t> numbered_files(const std::string& base, const std::string& mark);

/// The phase paths of a run by their identifiers, from <base>.phaseStack.
class PhaseTable {
public:
    PhaseTable() = default;
    PhaseTable(const std::string& base, Problems& problems);
    /// "phase 7" where the table does not tell, "(no phase)" for a negative identifier.
    std::string path(std::int32_t stack) const;
    std::size_t size() const { return paths_.size(); }

private:
    std::map<std::int32_t, std::string> paths_;
};

/// One entry or exit of a phase, as a phase buffer wrote it.
struct PhaseEvent {
    std::string name;             ///< of an entry
    std::int32_t transaction = 0; ///< id of the next one at that moment
    bool entering = true;
};

/// Threads that <base>.phase_thr files are of, ascending.
std::vector<std::int32_t> threads_with_phase_events(const std::string& base);

/// Calls `each` for the events of one thread, from <base>.phase_thr<thread>_0 on. False when there are no
/// such files.
bool read_phase_events(const std::string& base, std::int32_t thread, Problems& problems,
                       const std::function<void(const PhaseEvent&)>& each);

} // namespace memtrack
