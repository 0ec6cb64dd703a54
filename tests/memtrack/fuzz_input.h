// Reads any bytes as a recording, for the fuzzer and for the inputs that it once failed on. The bytes are cut
// into files: a byte tells which one, another its length, then its content.
#pragma once

#include <string>

namespace test {

/// Writes the files below `folder` (with a separator at its end), reads them in all ways and checks that
/// what is told is whole: figures agree with one another, texts are JSON. Aborts if not.
void read_fuzz_input(const std::string& folder, const std::string& bytes);

} // namespace test
