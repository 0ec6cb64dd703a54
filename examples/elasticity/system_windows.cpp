// Windows: the program starts itself as a child with its own command line, word for word, so that
// no argument needs quoting anew; a job object ends the child when this process is ended.
#include "system.h"

#include <array>
#include <cstdio>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <io.h>

namespace elasticity::system {

namespace {

class Handle {
public:
    explicit Handle(HANDLE handle) : handle_(handle) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() {
        if (handle_ != nullptr)
            CloseHandle(handle_);
    }
    HANDLE get() const { return handle_; }

private:
    HANDLE handle_;
};

// The child gets the interruption too and decides; this process waits for its answer.
BOOL WINAPI wait_through_interruption(DWORD event) {
    return event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT;
}

void end_with_this_process(HANDLE job, HANDLE child) {
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
    AssignProcessToJobObject(job, child);
}

} // namespace

bool environment_has(const char* name) {
    SetLastError(ERROR_SUCCESS);
    return GetEnvironmentVariableA(name, nullptr, 0) != 0 ||
           GetLastError() != ERROR_ENVVAR_NOT_FOUND;
}

bool set_environment(const char* name, bool present) {
    return SetEnvironmentVariableA(name, present ? "1" : nullptr) != 0 ||
           (!present && GetLastError() == ERROR_ENVVAR_NOT_FOUND);
}

std::optional<int> start_again(char**) {
    static std::array<wchar_t, 32768> program;
    const DWORD length = GetModuleFileNameW(nullptr, program.data(), DWORD{program.size()});
    if (length == 0 || length == program.size())
        return std::nullopt;
    std::fflush(nullptr);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(program.data(), GetCommandLineW(), nullptr, nullptr, TRUE, CREATE_SUSPENDED,
                        nullptr, nullptr, &startup, &process))
        return std::nullopt;
    const Handle child(process.hProcess);
    const Handle thread(process.hThread);
    const Handle job(CreateJobObjectW(nullptr, nullptr));
    end_with_this_process(job.get(), child.get());
    SetConsoleCtrlHandler(wait_through_interruption, TRUE);
    ResumeThread(thread.get());
    DWORD status = 0;
    if (WaitForSingleObject(child.get(), INFINITE) != WAIT_OBJECT_0 ||
        !GetExitCodeProcess(child.get(), &status))
        return std::nullopt;
    return static_cast<int>(status);
}

bool error_stream_is_terminal() {
    return _isatty(_fileno(stderr)) != 0;
}

bool is_replaceable(const char* file) {
    const DWORD attributes = GetFileAttributesA(file);
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return true;
    constexpr DWORD special =
        FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE | FILE_ATTRIBUTE_REPARSE_POINT;
    return (attributes & special) == 0;
}

String without_links(const String& file) {
    return file;
}

bool is_folder(const char* file) {
    const DWORD attributes = GetFileAttributesA(file);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool replace_file(const char* from, const char* to) {
    return MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING) != 0;
}

} // namespace elasticity::system
