// The child harness on Windows: CreateProcess, with the output streams in temporary files.
#include "child_common.h"

#include <map>
#include <stdexcept>
#include <windows.h>

namespace test {
namespace {

// The block of "NAME=value" texts that CreateProcess takes, ended by an empty one.
std::string environment_of(const ChildRequest& request) {
    std::map<std::string, std::string> values;
    char* const block = GetEnvironmentStringsA();
    for (const char* entry = block; *entry != '\0'; entry += std::string(entry).size() + 1) {
        const std::string text = entry;
        const std::size_t equals = text.find('=', 1); // names of drives begin with one
        if (equals != std::string::npos) {
            values[text.substr(0, equals)] = text.substr(equals + 1);
        }
    }
    FreeEnvironmentStringsA(block);
    for (const auto& [name, value] : request.environment) {
        if (value) {
            values[name] = *value;
        } else {
            values.erase(name);
        }
    }
    std::string result;
    for (const auto& [name, value] : values) {
        result += name + "=" + value + '\0';
    }
    return result + '\0';
}

// One argument as the C runtime takes it apart again.
std::string quoted(const std::string& argument) {
    std::string result = "\"";
    std::size_t backslashes = 0;
    for (const char c : argument) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        result.append(c == '"' ? 2 * backslashes + 1 : backslashes, '\\');
        backslashes = 0;
        result += c;
    }
    result.append(2 * backslashes, '\\');
    return result + '"';
}

class TemporaryFile {
public:
    TemporaryFile() {
        char folder[MAX_PATH], name[MAX_PATH];
        if (GetTempPathA(MAX_PATH, folder) == 0 || GetTempFileNameA(folder, "kxm", 0, name) == 0) {
            throw std::runtime_error("no temporary file");
        }
        name_ = name;
        SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        handle_ = CreateFileA(name, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                              CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY, nullptr);
    }
    ~TemporaryFile() {
        CloseHandle(handle_);
        DeleteFileA(name_.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    HANDLE handle() const { return handle_; }
    const std::string& name() const { return name_; }

private:
    std::string name_;
    HANDLE handle_ = nullptr;
};

} // namespace

ChildResult run_child(const ChildRequest& request) {
    const TemporaryFile out, err;
    std::string command = quoted(request.program);
    for (const std::string& argument : request.arguments) {
        command += " " + quoted(argument);
    }
    std::string environment = environment_of(request);

    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = out.handle();
    startup.hStdError = err.handle();
    PROCESS_INFORMATION process{};
    if (CreateProcessA(nullptr, command.data(), nullptr, nullptr, TRUE, 0, environment.data(),
                       nullptr, &startup, &process) == 0) {
        throw std::runtime_error(request.program + ": cannot be started");
    }
    constexpr DWORD one_minute = 60000;
    const bool ended = WaitForSingleObject(process.hProcess, one_minute) == WAIT_OBJECT_0;
    DWORD code = 0;
    if (!ended) {
        TerminateProcess(process.hProcess, 1);
    }
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    if (!ended) {
        throw std::runtime_error("child did not end");
    }

    ChildResult result;
    result.exit_code = static_cast<int>(code);
    // abort() exits with 3, an unhandled fault with its status code, 0xC0000000 and above.
    result.crashed = code == 3 || code >= 0xC0000000;
    result.out = read_text(out.name());
    result.err = read_text(err.name());
    return result;
}

void* find_symbol(const std::string& library, const std::string& name) {
    const HMODULE module = GetModuleHandleA((library + ".dll").c_str());
    return module != nullptr ? reinterpret_cast<void*>(GetProcAddress(module, name.c_str()))
                             : nullptr;
}

std::string program_path() {
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    return {path, length};
}

const char* program_suffix() {
    return ".exe";
}

} // namespace test
