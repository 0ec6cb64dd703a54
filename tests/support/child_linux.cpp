// The child harness on Linux: posix_spawn, with the output streams in temporary files.
#include "child_common.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <map>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace test {
namespace {

std::vector<std::string> environment_of(const ChildRequest& request) {
    std::map<std::string, std::string> values;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::size_t equals = text.find('=');
        if (equals != std::string::npos) {
            values[text.substr(0, equals)] = text.substr(equals + 1);
        }
    }
    for (const auto& [name, value] : request.environment) {
        if (value) {
            values[name] = *value;
        } else {
            values.erase(name);
        }
    }
    std::vector<std::string> result;
    for (const auto& [name, value] : values) {
        result.push_back(name + "=" + value);
    }
    return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

class TemporaryFile {
public:
    TemporaryFile() : descriptor_(mkstemp(name_)) {
        if (descriptor_ < 0) {
            throw std::runtime_error("no temporary file");
        }
    }
    ~TemporaryFile() {
        close(descriptor_);
        unlink(name_);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    const char* name() const { return name_; }

private:
    char name_[32] = "/tmp/kxm_child_XXXXXX";
    int descriptor_;
};

int wait_for(pid_t child) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::minutes(1);
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (Clock::now() > end) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            throw std::runtime_error("child did not end");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return status;
}

} // namespace

ChildResult run_child(const ChildRequest& request) {
    const TemporaryFile out, err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.name(), O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_addopen(&actions, 2, err.name(), O_WRONLY | O_TRUNC, 0);

    std::vector<std::string> arguments{request.program};
    arguments.insert(arguments.end(), request.arguments.begin(), request.arguments.end());
    std::vector<std::string> environment = environment_of(request);
    pid_t child = 0;
    const int error = posix_spawn(&child, request.program.c_str(), &actions, nullptr,
                                  pointers(arguments).data(), pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::runtime_error(request.program + ": " + std::strerror(error));
    }

    const int status = wait_for(child);
    ChildResult result;
    result.crashed = WIFSIGNALED(status);
    result.exit_code = result.crashed ? WTERMSIG(status) : WEXITSTATUS(status);
    result.out = read_text(out.name());
    result.err = read_text(err.name());
    // A sanitizer turns a fault or an abort into an exit of its own, after its report.
    if (result.err.find("Sanitizer") != std::string::npos && result.exit_code != 0) {
        result.crashed = true;
    }
    return result;
}

void* find_symbol(const std::string& library, const std::string& name) {
    void* const handle = dlopen(("lib" + library + ".so").c_str(), RTLD_LAZY | RTLD_NOLOAD);
    void* const named = handle != nullptr
                            ? handle
                            : dlopen(("lib" + library + ".so.0").c_str(), RTLD_LAZY | RTLD_NOLOAD);
    return named != nullptr ? dlsym(named, name.c_str()) : nullptr;
}

std::string program_path() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    if (length <= 0) {
        throw std::runtime_error("the test program cannot find itself");
    }
    return {path, static_cast<std::size_t>(length)};
}

const char* program_suffix() {
    return "";
}

} // namespace test
