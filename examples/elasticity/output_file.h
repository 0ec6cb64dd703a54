// A result file that appears whole or not at all.
//
// The text goes to a temporary name beside the file and takes its name only in commit(), when every
// byte has been written; without commit the temporary is removed. Something that a rename must not
// replace, such as a device, is written directly.
#pragma once

#include "memory.h"

#include <cstdio>
#include <initializer_list>
#include <string_view>

namespace elasticity {

class OutputFile {
public:
    /// Opens the file for writing. Throws InputError naming it when that fails, as write and commit
    /// do too.
    explicit OutputFile(const String& file);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(std::initializer_list<std::string_view> parts);
    void commit();

private:
    void flush();
    [[noreturn]] void fail(std::string_view what) const;

    String file_;
    String target_;
    String written_to_;
    Vector<char> buffer_;
    std::FILE* stream_;
};

} // namespace elasticity
