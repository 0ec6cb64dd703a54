// Reads the kernel's own list of the process's mappings, without allocating, for addresses that
// the platform did not hand out itself.
#pragma once

#include "platform/os.h"

namespace os {

// One line at a time out of a file, through a buffer in the object. Lines longer than the buffer
// (a very long file name) are cut, which loses nothing that is asked for here.
class LineReader {
public:
    explicit LineReader(const char* name);
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    bool is_open() const { return file_ >= 0; }
    const char* next(); // without its newline, NUL-terminated; null at the end
    bool has_failed() const { return failed_; } // what looked like the end was a read that failed

private:
    int file_;
    bool failed_ = false;
    std::size_t at_ = 0, filled_ = 0;
    char buffer_[2048];
    char line_[512];
};

/// `/proc/self/maps`, read as far as the queries need it.
class ProcessMap {
public:
    /// The mapping, or the gap between two, that holds `address`; false when the map cannot be read
    /// or the address lies above the user's address space.
    /// pre: no address is below the one before.
    bool query(std::uintptr_t address, Region& region);

private:
    struct Mapping {
        std::uintptr_t start, end;
        bool accessible, is_private, of_file;
    };
    static Mapping parse(const char* line);
    static Region region_of(const Mapping& mapping, std::uintptr_t address);

    LineReader reader_{"/proc/self/maps"};
    Mapping next_{}; // the lowest that ends above the last address asked for
};

} // namespace os
