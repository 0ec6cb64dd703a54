// Reads any bytes as a recording, for the fuzzer and for the inputs that it once failed on. The bytes are cut
// into files: a byte tells which one, another its length, then its content (fuzz_input.cpp).
#pragma once

#include <string>

namespace test {

/// Reads the files, which stay in memory, in all ways and checks that what is told is whole: figures agree with
/// one another, texts are JSON, each export is written. Aborts if not.
void read_fuzz_input(const std::string& bytes);

} // namespace test
