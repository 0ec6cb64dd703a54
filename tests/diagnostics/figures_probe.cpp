// Started by the tests: reads its first figures, and uses its address space up.
#include "KXMBasMem.h"
#include "own_view.h"
#include "played_system.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr std::uint64_t mib = 1048576;

bool allocates(std::size_t megabytes) {
    void* volatile const block = std::malloc(megabytes * mib);
    const bool got = block != nullptr;
    std::free(block);
    return got;
}

const char* outcome(std::size_t megabytes) {
    return allocates(megabytes) ? "allocated" : "refused";
}

const char* figure() {
    return KXMBasMemInfo::Physical() == 0 ? "none" : "some";
}

void first_object() {
    const char* const before = figure();
    test::PlayedSystem system;
    const auto load = system->module_load;
    const auto older = system->older_machine_memory;
    const auto refuse = [&] {
        system->module_load = [](const char*) -> os::Module { return nullptr; };
        system->older_machine_memory = [](os::OlderMachineMemory& figures) {
            figures.length = UINT32_MAX;
        };
    };
    refuse();
    const KXMBasMemInfo failing;
    const char* const refused = figure();
    system->module_load = load;
    system->older_machine_memory = older;
    const KXMBasMemInfo retrying;
    const char* const retried = figure();
    refuse();
    const KXMBasMemInfo later; // reads nothing anew
    std::printf("%s, %s, %s, %s\n", before, refused, retried, figure());
}

void restrict_memory() {
    KXMBasMemInfo info;
    const std::uint64_t before = test::reserved_bytes(), current = info.Current();
    const auto available =
        static_cast<std::uint64_t>(mem_GetWindowsMemory().GetAvailVirtMemoryMbytes());
    // The figure is a float, so good to 8 MB at this size: 50 on either side of a whole step.
    mem_RestrictMemory((available - 750 - 200) * 1024);
    // To the next hundred: a checker's own map changes a little.
    const std::uint64_t more = (test::reserved_bytes() - before + 50 * mib) / (100 * mib) * 100;
    std::printf("%d MB more reserved, %s\n", static_cast<int>(more),
                info.Current() <= current + 2 ? "none of it private" : "some of it private");
}

void limited() {
    if (!test::limit_address_space(2000 * mib)) {
        return;
    }
    const auto total = static_cast<unsigned>(mem_getVirtualMemorySizeMB());
    mem_RestrictMemory(500 * 1024);
    const float left = mem_GetWindowsMemory().GetAvailVirtMemoryMbytes();
    std::printf("limit %u MB, left %s\n", total,
                left >= 700 && left < 801 ? "700 to 800 MB" : "something else");
    std::printf("600 MB %s, 850 MB %s\n", outcome(600), outcome(850));
    mem_RestrictMemory(100 * 1024 * 1024);
    std::printf("then nothing: 100 MB %s\n", outcome(100));
}

} // namespace

int main(int, char** arguments) {
    const std::string mode = arguments[1];
    if (mode == "first") {
        first_object();
    } else if (mode == "restrict") {
        restrict_memory();
    } else {
        limited();
    }
    return 0;
}
