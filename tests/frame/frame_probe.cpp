// Started by the tests with an environment of their choice: shows which back end the library bound
// when it was loaded, and commits the damage that the guarded back end is to report.
#include "KXMBasMem.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

unsigned low_word(const void* p) {
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(p));
}

bool looks_guarded(const char* block, std::size_t size) {
    constexpr char guard[] = "DEADBEEFDEADBEEF";
    std::uint64_t stored = 0;
    std::memcpy(&stored, block - 24, sizeof stored);
    return stored == size && std::memcmp(block - 16, guard, 16) == 0 &&
           std::memcmp(block + size, guard, 16) == 0;
}

// Told by what its blocks look like: many of them, since a plain block may lie well by chance. A
// guarded block lies 8 bytes off where the runtime would put it; only then is there a guard to
// read.
const char* backend() {
    const std::size_t footprint = mem_footprint(); // only the heap counts its own
    bool aligned = true, guarded = true;
    std::vector<void*> blocks;
    for (std::size_t size = 24; size < 24 + 16 * 8; size += 8) {
        auto* const block = static_cast<char*>(mem_Malloc(size));
        const auto address = reinterpret_cast<std::uintptr_t>(block);
        aligned = aligned && address % 64 == 0;
        guarded = guarded && address % 16 == 8 && looks_guarded(block, size);
        blocks.push_back(block);
    }
    for (void* const block : blocks) {
        mem_Free(block);
    }
    if (mem_footprint() != footprint) {
        return aligned ? "heap" : "heap, misaligned";
    }
    return aligned ? "aligned" : guarded ? "guarded" : "crt";
}

int show_backend() {
    std::printf("backend=%s usingDL=%d\n", backend(), mem_usingDL());
    std::printf("malloc=%d calloc=%d realloc=%d free=%d others=%d\n", mem_malloc != nullptr,
                mem_calloc != nullptr, mem_realloc != nullptr, mem_free != nullptr,
                mem_trim != nullptr && mem_mallopt != nullptr && mem_footprint != nullptr &&
                    mem_maxfootprint != nullptr && mem_memorylimit != nullptr &&
                    mem_errormemorylimit != nullptr && mem_fragmentationinfo != nullptr &&
                    mem_dlmallinfo != nullptr);
    return 0;
}

// Writes over one guard or both, releases or resizes, and prints where the guards were.
int damage(const std::string& where, bool resize) {
    constexpr std::size_t size = 100;
    auto* const block = static_cast<char*>(mem_Malloc(size));
    std::printf("front=0x%x back=0x%x\n", low_word(block - 16), low_word(block + size));
    char* volatile target = block;
    if (where == "back" || where == "both") {
        target[size] = 'x'; // the first byte past the end
    }
    if (where == "front" || where == "both") {
        target[-1] = 'x';
    }
    if (resize) {
        auto* const moved = static_cast<char*>(mem_Realloc(block, 3 * size));
        std::printf("guarded=%d\n", looks_guarded(moved, 3 * size));
        mem_Free(moved);
    } else {
        mem_Free(block);
    }
    std::puts("went on");
    return 0;
}

// The stored size lies in front of the front guard: damage there moves the place that is looked at.
int damage_size() {
    auto* const block = static_cast<char*>(mem_Malloc(64));
    const std::uint64_t shorter = 32;
    std::memcpy(block - 24, &shorter, sizeof shorter);
    std::memset(block, 0, 64);
    std::printf("front=0x%x back=0x%x\n", low_word(block - 16), low_word(block + 32));
    mem_Free(block);
    return 0;
}

int counting() {
    int status = 10; // loading counted once already, on a status of the library's own
    const auto show = [&](const char* what) { std::printf("%s %d\n", what, status); };
    KXMBasAlloc_initialize(status);
    show("second start");
    KXMBasAlloc_finalize(status);
    show("its stop");
    KXMBasAlloc_finalize(status);
    show("last stop");
    auto* const block = static_cast<char*>(mem_Malloc(100));
    std::printf("still bound %d\n", block != nullptr);
    mem_Free(block);
    KXMBasAlloc_initialize(status);
    show("new start");
    KXMBasMem_initialize(status);
    show("memory layer again");
    KXMBasMem_finalize(status);
    show("and its stop");
    KXMBasAlloc_finalize(status);
    show("full stop");
    KXMBasAlloc_finalize(status);
    show("stop too many");
    KXMBasAlloc_initialize(status);
    show("start after it");
    KXMBasAlloc_initialize(status);
    show("start once more");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    int result = 2;
    if (what == "backend") {
        result = show_backend();
    } else if (what == "damage") {
        result = damage(argv[2], false);
    } else if (what == "damage-resize") {
        result = damage(argv[2], true);
    } else if (what == "damage-size") {
        result = damage_size();
    } else if (what == "counting") {
        result = counting();
    } else if (what == "variables") {
        const auto text = [](const char* value) { return value != nullptr ? value : "(null)"; };
        std::printf("%s %s %s\n", text(KXA_PARALLEL_DEBUG), text(MC_RESULT), text(m_registEnv));
        result = 0;
    } else if (what == "refused-guarded") {
        std::puts("asking");
        std::fflush(stdout);
        mem_Malloc(SIZE_MAX / 2); // the guarded back end has no test of a refusal
        result = 0;
    } else if (what == "calloc-of-nothing") {
        std::puts("asking");
        std::fflush(stdout);
        mem_Calloc(3, 0); // has its elements' size as a divisor
        result = 0;
    }
    std::fflush(stdout);
    return result;
}
