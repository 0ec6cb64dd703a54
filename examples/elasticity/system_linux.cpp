// Linux: the process replaces itself; files and terminals by POSIX calls.
#include "system.h"

#include <climits>
#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

namespace elasticity::system {

bool environment_has(const char* name) {
    return std::getenv(name) != nullptr;
}

bool set_environment(const char* name, bool present) {
    return (present ? setenv(name, "1", 1) : unsetenv(name)) == 0;
}

std::optional<int> start_again(char** argv) {
    std::fflush(nullptr);
    execv("/proc/self/exe", argv);
    return std::nullopt;
}

bool error_stream_is_terminal() {
    return isatty(STDERR_FILENO) != 0;
}

bool is_replaceable(const char* file) {
    struct stat status {};
    return stat(file, &status) != 0 || S_ISREG(status.st_mode);
}

String without_links(const String& file) {
    static char path[PATH_MAX];
    return realpath(file.c_str(), path) != nullptr ? String(path) : file;
}

bool is_folder(const char* file) {
    struct stat status {};
    return stat(file, &status) == 0 && S_ISDIR(status.st_mode);
}

bool replace_file(const char* from, const char* to) {
    return std::rename(from, to) == 0;
}

} // namespace elasticity::system
