// Fuzzes the reader of tracking files: bytes become the files of a recording, of all three formats, which
// are read in all ways.
#include "fuzz_input.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::read_fuzz_input(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
