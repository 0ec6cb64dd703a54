// This process's part of what the launcher tells at the end (../figures.h), and the settings that it gave.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "frame/host.h"
#include "process.h"

namespace kxmrun {
namespace {

ProcessFigures nobodys{}; // where there is nobody to tell
Figures* shared = nullptr;

int rank_of_process() {
    for (const char* const name :
         {"OMPI_COMM_WORLD_RANK", "PMIX_RANK", "PMI_RANK", "SLURM_PROCID"}) {
        if (const char* const value = std::getenv(name)) {
            return std::atoi(value);
        }
    }
    return 0;
}

// The name is a descriptor of the launcher's in /proc, which may have become something else since: only
// what is shared memory of the right size and mark is taken.
Figures* map_figures(const char* path) {
    char target[64] = "";
    if (readlink(path, target, sizeof target - 1) < 0 ||
        std::strncmp(target, "/memfd:kxmrun", 13) != 0) {
        return nullptr;
    }
    const int file = open(path, O_RDWR | O_CLOEXEC);
    if (file < 0) {
        return nullptr;
    }
    struct stat status {};
    void* memory = MAP_FAILED;
    if (fstat(file, &status) == 0 && status.st_size == static_cast<off_t>(sizeof(Figures))) {
        memory = mmap(nullptr, sizeof(Figures), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    }
    close(file);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    auto* const figures = static_cast<Figures*>(memory);
    return figures->magic == Figures::mark ? figures : nullptr;
}

} // namespace

void open_figures() {
    const int saved_errno = errno;
    if (const char* const path = std::getenv(figures_variable)) {
        shared = map_figures(path);
    }
    errno = saved_errno;
}

void take_figures() {
    ProcessFigures* mine = &nobodys;
    if (shared != nullptr) {
        const std::uint32_t index = shared->count.fetch_add(1, std::memory_order_relaxed);
        if (index < Figures::most) {
            mine = &shared->processes[index];
        }
    }
    process.pid = getpid();
    mine->pid = process.pid;
    mine->rank = rank_of_process();
    std::strncpy(mine->program, program_invocation_short_name, sizeof mine->program - 1);
    mine->own = process.figures != nullptr ? process.figures->own : 0;
    process.figures = mine;
    if (process.backend == Backend::heap) {
        host::watch_peak(&mine->peak);
    }
    mine->taken.store(1, std::memory_order_release);
}

bool plain_name_is_mine() {
    return shared != nullptr && shared->plain_name_taken.exchange(1) == 0;
}

const char* setting(const char* name) {
    const char* text = std::getenv(settings_variable);
    const std::size_t length = std::strlen(name);
    while (text != nullptr) {
        if (std::strncmp(text, name, length) == 0 && text[length] == '=') {
            return text + length + 1;
        }
        text = std::strchr(text, ',');
        text = text != nullptr ? text + 1 : nullptr;
    }
    return nullptr;
}

} // namespace kxmrun
