// See system.h.
#include "system.h"

#include "mem_Interface.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace kxmdiag {

std::string system_name() {
    utsname names{};
    return uname(&names) == 0 ? std::string(names.sysname) + " " + names.release : "Linux";
}

std::string library_file() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(mem_Malloc), &info) == 0 || info.dli_fname == nullptr) {
        return "";
    }
    char path[PATH_MAX];
    return realpath(info.dli_fname, path) != nullptr ? path : info.dli_fname;
}

std::string working_folder_drive() {
    return ".";
}

std::vector<std::string> environment_names() {
    std::vector<std::string> names;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        names.emplace_back(*entry, std::strcspn(*entry, "="));
    }
    return names;
}

} // namespace kxmdiag
