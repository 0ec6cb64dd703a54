// A thread on Linux runs on the stack that it is given: one directly above the block.
#include "ground.h"

#include <algorithm>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace test {
namespace {

void map(char* place, std::size_t size, int file) {
    const int kind = file < 0 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED;
    require(mmap(place, size, PROT_READ | PROT_WRITE, kind | MAP_FIXED, file, 0) == place);
}

} // namespace

void GroundSystem::run(std::size_t block_bytes, std::size_t stack_bytes, void (*work)(char*)) {
    void* const all = mmap(nullptr, block_bytes + stack_bytes, PROT_NONE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    require(all != MAP_FAILED);
    auto* const block = static_cast<char*>(all);
    const int file = memfd_create("ground", 0);
    require(ftruncate(file, piece) == 0);
    const std::size_t mapped_often = block_bytes - apart;
    for (std::size_t at = 0; at < mapped_often; at += piece) {
        map(block + at, std::min(piece, mapped_often - at), file);
    }
    map(block + mapped_often, apart + stack_bytes, -1);

    Work what{work, block};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    require(pthread_attr_setstack(&attributes, block + block_bytes, stack_bytes) == 0);
    pthread_t thread{};
    const auto start = [](void* argument) -> void* {
        const Work& given = *static_cast<Work*>(argument);
        given.work(given.block);
        return nullptr;
    };
    require(pthread_create(&thread, &attributes, start, &what) == 0);
    pthread_join(thread, nullptr);
}

} // namespace test
