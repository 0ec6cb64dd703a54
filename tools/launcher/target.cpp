// See target.h. A library is preloaded by the dynamic loader that a program names, so there must be one, of the
// GNU C library and of this processor, and it must be free to listen: for a program that runs with other
// rights than its user's it is not.
#include "target.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace kxmrun {
namespace {

constexpr int most_interpreters = 5; // what the kernel follows

class File {
public:
    explicit File(const std::string& path) : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~File() {
        if (file_ >= 0) {
            close(file_);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    bool is_open() const { return file_ >= 0; }
    /// Up to `size` bytes from `offset`.
    std::string read(std::size_t size, std::uint64_t offset) {
        std::string bytes(size, '\0');
        ssize_t got = 0;
        do {
            got = pread(file_, bytes.data(), size, static_cast<off_t>(offset));
        } while (got < 0 && errno == EINTR);
        error_ = got < 0 ? errno : error_;
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }
    int error() const { return error_; } ///< of the last read that failed, or 0

private:
    int file_;
    int error_ = 0;
};

// The first executable file of that name; errno tells why there is none.
std::string look_up(const std::string& command) {
    const auto runnable = [](const std::string& path) {
        struct stat status {};
        if (stat(path.c_str(), &status) != 0) {
            return false;
        }
        if (S_ISDIR(status.st_mode)) {
            errno = EISDIR;
            return false;
        }
        return access(path.c_str(), X_OK) == 0;
    };
    if (command.find('/') != std::string::npos) {
        return runnable(command) ? command : "";
    }
    const char* const places = std::getenv("PATH");
    std::string rest = places != nullptr ? places : "/usr/local/bin:/usr/bin:/bin";
    int error = ENOENT;
    while (!command.empty()) {
        const std::size_t colon = rest.find(':');
        const std::string folder = rest.substr(0, colon);
        std::string path = (folder.empty() ? "." : folder) + "/" + command;
        if (runnable(path)) {
            return path;
        }
        if (errno == EACCES) {
            error = EACCES;
        }
        if (colon == std::string::npos) {
            break;
        }
        rest.erase(0, colon + 1);
    }
    errno = error;
    return {};
}

template <typename Record>
bool record_at(const std::string& bytes, std::size_t offset, Record& record) {
    if (offset > bytes.size() || bytes.size() - offset < sizeof record) {
        return false;
    }
    std::memcpy(&record, bytes.data() + offset, sizeof record);
    return true;
}

// The loader that an ELF file of the right kind names; `reason` says what is against it.
std::string loader_of(File& file, const std::string& head, std::string& reason) {
    Elf64_Ehdr header{};
    if (head.size() > EI_CLASS && head[EI_CLASS] == ELFCLASS32) {
        reason = "is a 32-bit program";
        return {};
    }
    if (!record_at(head, 0, header) || header.e_machine != EM_X86_64) {
        reason = "is a program of another processor";
        return {};
    }
    const std::string table =
        file.read(std::size_t{header.e_phentsize} * header.e_phnum, header.e_phoff);
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr part{};
        if (header.e_phentsize >= sizeof part &&
            record_at(table, std::size_t{i} * header.e_phentsize, part) &&
            part.p_type == PT_INTERP && part.p_filesz < 4096) {
            const std::string name = file.read(part.p_filesz, part.p_offset);
            return name.substr(0, name.find('\0'));
        }
    }
    reason = "is statically linked, so nothing can be preloaded into it";
    return {};
}

bool runs_with_other_rights(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && (status.st_mode & (S_ISUID | S_ISGID)) != 0;
}

// What is against running the file; empty when nothing is.
std::string reason_against(const std::string& path, int depth) {
    if (runs_with_other_rights(path)) {
        return "is set-user-id or set-group-id, so the system preloads nothing into it";
    }
    if (getxattr(path.c_str(), "security.capability", nullptr, 0) > 0) {
        return "has capabilities of its own, so the system preloads nothing into it";
    }
    File file(path);
    if (!file.is_open()) {
        return {}; // it may be run and not be read: the system will tell
    }
    const std::string head = file.read(4096, 0);
    std::string reason, loader;
    const bool elf = head.compare(0, SELFMAG, ELFMAG) == 0;
    if (elf) {
        loader = loader_of(file, head, reason);
    }
    if (file.error() != 0) {
        return std::string("cannot be read: ") + std::strerror(file.error());
    }
    if (elf) {
        if (reason.empty() && loader.find("ld-linux-x86-64") == std::string::npos) {
            reason = "uses the loader " + loader + ", which is not that of the GNU C library";
        }
        return reason;
    }
    if (head.compare(0, 2, "#!") != 0) {
        // A text is the shell's; anything else is nobody's.
        return head.find('\0') == std::string::npos ? "" : "is no program of this system";
    }
    const std::size_t begin = head.find_first_not_of(" \t", 2);
    const std::size_t end = head.find_first_of(" \t\r\n", begin);
    if (begin == std::string::npos || begin == end || depth == most_interpreters) {
        return "is a script without an interpreter";
    }
    const std::string interpreter = head.substr(begin, end - begin);
    if (access(interpreter.c_str(), X_OK) != 0) {
        return "is a script of " + interpreter + ": " + std::strerror(errno);
    }
    const std::string why = reason_against(interpreter, depth + 1);
    return why.empty() ? "" : "is a script of " + interpreter + ", which " + why;
}

} // namespace

Target find_target(const std::string& command) {
    const std::string path = look_up(command);
    if (path.empty()) {
        return {"", command + ": " + (errno == ENOENT ? "no such program" : std::strerror(errno))};
    }
    const std::string why = reason_against(path, 0);
    return why.empty() ? Target{path, ""} : Target{"", path + " " + why};
}

} // namespace kxmrun
