// Where recordings are read from: the files of the system, or such as a fuzzer keeps in memory, which it has read
// some hundred times a second.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace memtrack {

class InputFile {
public:
    virtual ~InputFile() = default;
    virtual std::uint64_t size() const = 0; ///< in bytes
    virtual std::size_t read(void* data,
                             std::size_t bytes) = 0; ///< fewer at the end, or by an error
    virtual bool go_to(std::uint64_t offset) = 0;    ///< below 2 GiB
};

class InputFiles {
public:
    virtual ~InputFiles() = default;
    virtual std::unique_ptr<InputFile>
    open(const std::string& name) const = 0;                       ///< null: it cannot be
    virtual std::uint64_t size(const std::string& name) const = 0; ///< 0: there is none
    /// What follows `start`, a path, in the names of those files that begin with it; in no order.
    virtual std::vector<std::string> endings(const std::string& start) const = 0;
};

const InputFiles& input_files();
/// From now on, these; null: the system's again. Not while a recording is being read.
void set_input_files(const InputFiles* files);

} // namespace memtrack
