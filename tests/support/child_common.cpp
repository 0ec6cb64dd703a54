// What running a child needs on every system alike.
#include "child_common.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace test {

std::string read_text(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    std::string result = text.str();
    std::string clean;
    for (std::size_t i = 0; i < result.size(); ++i) {
        if (result[i] != '\r' || i + 1 == result.size() || result[i + 1] != '\n') {
            clean += result[i];
        }
    }
    return clean;
}

std::string program_folder() {
    std::string path = program_path();
    return path.substr(0, path.find_last_of("/\\") + 1);
}

std::string sibling_program(const std::string& name) {
    return program_folder() + name + program_suffix();
}

std::string scratch_folder(const std::string& name) {
    const std::filesystem::path folder = std::filesystem::path(program_folder()) / "scratch" / name;
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    return folder.string() + static_cast<char>(std::filesystem::path::preferred_separator);
}

} // namespace test
