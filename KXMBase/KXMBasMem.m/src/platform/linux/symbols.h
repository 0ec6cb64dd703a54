// Names, files and lines of code addresses on Linux.
#pragma once

#include <cstddef>
#include <cstdint>

namespace os {

struct CodeSymbol {
    char name[480];     ///< readable; empty when unknown
    const char* file;   ///< stays for the life of the process; null when unknown
    std::uint32_t line; ///< of `file`
};

/// Readies the look-up; false when the system refuses the memory for it. Files are read later, at the
/// first look-up. May be called again.
bool symbols_start();

/// What is known of `address`, an address inside an instruction of the frame.
/// Any thread; allocates pages from the system, never a block from a heap, and waits for nobody.
void symbol_at(std::uint64_t address, CodeSymbol& symbol);

/// Lets `address` be known as the runtime's start of a thread.
void note_thread_start(std::uint64_t address);

} // namespace os
