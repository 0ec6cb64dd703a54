// See process.h: posix_spawn with two pipes.
#include "process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace memtrack::platform {
namespace {

class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    ~Descriptor() { close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return number_; }
    void set(int number) { number_ = number; }
    void close() {
        if (number_ >= 0) {
            ::close(number_);
            number_ = -1;
        }
    }

private:
    int number_;
};

void make_pipe(Descriptor& reading, Descriptor& writing) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("no pipe: ") + std::strerror(errno));
    }
    reading.set(ends[0]);
    writing.set(ends[1]);
}

std::vector<std::string> environment_of(const ProcessRequest& request) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!request.changes(*entry)) {
            result.emplace_back(*entry);
        }
    }
    request.add_to(result);
    return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

} // namespace

struct Process::State {
    Descriptor to, from;
    pid_t child = 0;
};

Process::Process(const ProcessRequest& request) : state_(std::make_unique<State>()) {
    std::signal(SIGPIPE, SIG_IGN); // a program that died is told by the write's result
    Descriptor its_input, its_output;
    make_pipe(its_input, state_->to);
    make_pipe(state_->from, its_output);
    std::vector<std::string> arguments{request.program};
    arguments.insert(arguments.end(), request.arguments.begin(), request.arguments.end());
    std::vector<std::string> environment = environment_of(request);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, its_input.get(), 0);
    posix_spawn_file_actions_adddup2(&actions, its_output.get(), 1);
    const int error = posix_spawn(&state_->child, request.program.c_str(), &actions, nullptr,
                                  pointers(arguments).data(), pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        state_->child = 0;
        throw std::runtime_error(request.program + " cannot be started: " + std::strerror(error));
    }
}

Process::~Process() {
    if (state_->child != 0) {
        kill(state_->child, SIGKILL);
        wait();
    }
}

bool Process::write(const void* data, std::size_t size) {
    for (const auto* at = static_cast<const char*>(data); size != 0;) {
        const ssize_t put = ::write(state_->to.get(), at, size);
        if (put > 0) {
            at += put;
            size -= static_cast<std::size_t>(put);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::size_t Process::read(void* data, std::size_t size) {
    for (;;) {
        const ssize_t got = ::read(state_->from.get(), data, size);
        if (got >= 0) {
            return static_cast<std::size_t>(got);
        }
        if (errno != EINTR) {
            return 0;
        }
    }
}

ProcessEnd Process::wait() {
    state_->to.close();
    int status = 0;
    while (waitpid(state_->child, &status, 0) < 0 && errno == EINTR) {
    }
    state_->child = 0;
    return WIFSIGNALED(status) ? ProcessEnd{true, WTERMSIG(status)}
                               : ProcessEnd{false, WEXITSTATUS(status)};
}

std::string program_folder() {
    std::array<char, 4096> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    const std::string name(path.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    return name.substr(0, name.find_last_of('/') + 1);
}

const char* const program_suffix = "";
const bool can_preload = true;

} // namespace memtrack::platform
