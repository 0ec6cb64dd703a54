// Reads the files that a tracked run leaves, whatever state they are in: record by record, in the
// order of the events, with little memory. Nothing here stands on the library; the formats are those of
// docs/tracking-files.md.
//
// What is wrong with the files is told to `Notes`, in words for the user; what can be read is read all
// the same.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
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
inline constexpr std::int32_t type_count = 9;
const char* type_name(Type type);

inline constexpr std::uint64_t no_size = ~std::uint64_t{0};

struct Transaction {
    std::uint64_t pointer = 0;
    std::uint64_t old_pointer = 0;
    Type type = Type::malloc_; ///< one of the nine: others are left out and told
    std::int32_t id = 0;
    std::uint64_t size = 0;
    std::int32_t thread = 0;
    std::int32_t stack = 0; ///< without meaning on a free

    bool has_stack() const { return type != Type::free_ && stack >= 0; }
};

using Notes = std::vector<std::string>;

/// The base name of a run, from it or from the name of any of its files.
std::string base_name(const std::string& argument);

/// A file that reads its fields little-endian on any machine.
class InputFile {
public:
    explicit InputFile(const std::string& name);
    bool is_open() const { return file_ != nullptr; }
    std::size_t read(void* data, std::size_t size);
    bool read_word(std::int32_t& value);
    bool skip(long bytes);
    bool at_end();

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Close> file_;
};

/// The transactions of a run: <base>.memT0, <base>.memT1 and so on, as one stream.
class TransactionReader {
public:
    TransactionReader(std::string base, Notes& notes);

    /// The next transaction; false at the end of what can be read.
    bool next(Transaction& transaction);

    std::int32_t files() const { return files_; } ///< read so far, or begun

private:
    static constexpr std::size_t record_bytes = 40;
    static constexpr std::size_t chunk_records = 1024;

    bool open_next_file();
    bool fill_chunk();
    bool decode(const unsigned char* bytes, Transaction& transaction);
    void note_files_left();
    void note(const std::string& text);

    std::string base_;
    Notes& notes_;
    std::string name_; // of the present file
    InputFile file_;
    std::int32_t files_ = 0;
    std::int32_t expected_in_file_ = 0, read_in_file_ = 0;
    std::array<unsigned char, record_bytes * chunk_records> chunk_{};
    std::size_t chunk_at_ = 0, chunk_end_ = 0; // in records
    std::uint32_t next_id_ = 0;
    bool last_file_was_full_ = true, ended_ = false, ids_told_ = false, types_told_ = false;
};

/// The phase paths of a run by their identifiers, from <base>.phaseStack.
class PhaseTable {
public:
    PhaseTable(const std::string& base, Notes& notes);
    std::string path(std::int32_t stack) const; ///< "phase 7" where the table does not tell
    std::size_t size() const { return paths_.size(); }

private:
    std::map<std::int32_t, std::string> paths_;
};

/// One entry or exit of a phase, as a phase buffer wrote it.
struct PhaseEvent {
    std::string name; ///< of an entry
    std::int32_t transaction = 0;
    bool entering = true;
};

/// Calls `each` for the events of one thread, from <base>.phase_thr<thread>_0 on. False when there are no
/// such files.
bool read_phase_events(const std::string& base, int thread, Notes& notes,
                       const std::function<void(const PhaseEvent&)>& each);

} // namespace memtrack
