// See process.h: CreateProcess with two pipes.
#include "process.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <windows.h>

namespace memtrack::platform {
namespace {

class Handle {
public:
    Handle() = default;
    ~Handle() { close(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    HANDLE get() const { return handle_; }
    HANDLE* place() { return &handle_; }
    void close() {
        if (handle_ != nullptr) {
            CloseHandle(handle_);
            handle_ = nullptr;
        }
    }

private:
    HANDLE handle_ = nullptr;
};

// The program inherits `its`, and `ours` stays ours: else its end would not be seen.
void make_pipe(Handle& reading, Handle& writing, Handle& ours) {
    SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    constexpr DWORD room = 1 << 20;
    if (CreatePipe(reading.place(), writing.place(), &inherited, room) == 0 ||
        SetHandleInformation(ours.get(), HANDLE_FLAG_INHERIT, 0) == 0) {
        throw std::runtime_error("no pipe");
    }
}

// The block of "NAME=value" texts that CreateProcess takes, ended by an empty one.
std::string environment_of(const ProcessRequest& request) {
    std::vector<std::string> values;
    char* const block = GetEnvironmentStringsA();
    for (const char* entry = block; *entry != '\0'; entry += std::strlen(entry) + 1) {
        if (!request.changes(entry)) {
            values.emplace_back(entry);
        }
    }
    FreeEnvironmentStringsA(block);
    request.add_to(values);
    std::string result;
    for (const std::string& value : values) {
        result += value + '\0';
    }
    return result + '\0';
}

} // namespace

struct Process::State {
    Handle to, from, process;
};

Process::Process(const ProcessRequest& request) : state_(std::make_unique<State>()) {
    Handle its_input, its_output, its_thread;
    make_pipe(its_input, state_->to, state_->to);
    make_pipe(state_->from, its_output, state_->from);
    std::string command = '"' + request.program + '"';
    for (const std::string& argument : request.arguments) {
        command += ' ' + argument;
    }
    std::string environment = environment_of(request);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = its_input.get();
    startup.hStdOutput = its_output.get();
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION process{};
    if (CreateProcessA(request.program.c_str(), command.data(), nullptr, nullptr, TRUE, 0,
                       environment.data(), nullptr, &startup, &process) == 0) {
        throw std::runtime_error(request.program + " cannot be started");
    }
    *its_thread.place() = process.hThread;
    *state_->process.place() = process.hProcess;
}

Process::~Process() {
    if (state_->process.get() != nullptr) {
        TerminateProcess(state_->process.get(), 1);
        wait();
    }
}

bool Process::write(const void* data, std::size_t size) {
    constexpr std::size_t most = 1 << 20;
    for (const auto* at = static_cast<const char*>(data); size != 0;) {
        DWORD put = 0;
        if (WriteFile(state_->to.get(), at, static_cast<DWORD>(std::min(size, most)), &put,
                      nullptr) == 0) {
            return false;
        }
        at += put;
        size -= put;
    }
    return true;
}

std::size_t Process::read(void* data, std::size_t size) {
    DWORD got = 0;
    return ReadFile(state_->from.get(), data, static_cast<DWORD>(size), &got, nullptr) != 0 ? got
                                                                                            : 0;
}

ProcessEnd Process::wait() {
    state_->to.close();
    WaitForSingleObject(state_->process.get(), INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(state_->process.get(), &code);
    state_->process.close();
    constexpr DWORD first_fault = 0xC0000000;
    return {code >= first_fault, static_cast<int>(code)};
}

std::string program_folder() {
    std::array<char, MAX_PATH> path{};
    const DWORD length = GetModuleFileNameA(nullptr, path.data(), MAX_PATH);
    const std::string name(path.data(), length);
    return name.substr(0, name.find_last_of("/\\") + 1);
}

const char* const program_suffix = ".exe";
const bool can_preload = false;

} // namespace memtrack::platform
