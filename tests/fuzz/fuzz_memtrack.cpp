// Fuzzes the reader of tracking files: bytes become the files of a recording, of all three formats, which
// are read in all ways. KXM_FUZZ_FOLDER names where the files go: one in memory is best.
#include "fuzz_input.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string folder = [] {
        const char* const given = std::getenv("KXM_FUZZ_FOLDER");
        const std::filesystem::path path =
            given != nullptr ? std::filesystem::path(given)
                             : std::filesystem::temp_directory_path() / "fuzz_memtrack";
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(path);
        return path.string() + "/";
    }();
    test::read_fuzz_input(folder, std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
