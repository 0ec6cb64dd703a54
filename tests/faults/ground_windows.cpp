// Windows chooses the place of a stack itself: the thread has one that is deep enough, and the block
// lies anywhere.
#include "ground.h"

#include <algorithm>
#include <windows.h>

namespace test {
namespace {

DWORD WINAPI start(void* argument) {
    const Work& given = *static_cast<Work*>(argument);
    given.work(given.block);
    return 0;
}

} // namespace

void GroundSystem::run(std::size_t block_bytes, std::size_t stack_bytes, void (*work)(char*)) {
    // Room for all of it, found by asking for it.
    void* const room = VirtualAlloc(nullptr, block_bytes + piece, MEM_RESERVE, PAGE_NOACCESS);
    require(room != nullptr);
    VirtualFree(room, 0, MEM_RELEASE);
    auto* const block = static_cast<char*>(room);
    HANDLE const file =
        CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, piece, nullptr);
    const std::size_t mapped_often = block_bytes - apart;
    for (std::size_t at = 0; at < mapped_often; at += piece) {
        require(MapViewOfFileEx(file, FILE_MAP_WRITE, 0, 0, std::min(piece, mapped_often - at),
                                block + at) == block + at);
    }
    require(VirtualAlloc(block + mapped_often, apart, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE) ==
            block + mapped_often);

    Work what{work, block};
    HANDLE const thread = CreateThread(nullptr, 2 * stack_bytes, start, &what,
                                       STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    require(thread != nullptr);
    WaitForSingleObject(thread, INFINITE);
}

} // namespace test
