// Linked into the stress program on Windows, lets calls that the library makes of the system fail: its imports lead
// through here.
//
//   KXM_INJECT=CALL:N    CALL is VirtualAlloc, malloc (and its kin) or _write, of which half is done: every n-th; or
//                        CreateEventW: the first N
#include "inject.h"

#include <KXMBasMem.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <io.h>
#include <malloc.h>
#include <windows.h>

namespace {

char call[16] = "";
long each = 0;
std::atomic<long> calls{0};
std::atomic<std::size_t> mapped{0};

bool fails(const char* name) {
    return std::strcmp(name, call) == 0 && ++calls % each == 0;
}

void* allocate_pages(void* where, SIZE_T size, DWORD type, DWORD protection) {
    if (fails("VirtualAlloc")) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    void* const made = VirtualAlloc(where, size, type, protection);
    mapped += made != nullptr && (type & MEM_COMMIT) != 0 ? size : 0;
    return made;
}

BOOL free_pages(void* where, SIZE_T size, DWORD type) {
    MEMORY_BASIC_INFORMATION info{};
    VirtualQuery(where, &info, sizeof info);
    const BOOL freed = VirtualFree(where, size, type);
    mapped -= freed != 0 && info.State == MEM_COMMIT ? info.RegionSize : 0;
    return freed;
}

HANDLE create_event(SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
    const bool refused = std::strcmp("CreateEventW", call) == 0 && ++calls <= each;
    return refused ? nullptr : CreateEventW(security, manual, set, name);
}

void* allocate(std::size_t size) {
    return fails("malloc") ? nullptr : std::malloc(size);
}

void* allocate_cleared(std::size_t count, std::size_t size) {
    return fails("malloc") ? nullptr : std::calloc(count, size);
}

void* resize(void* block, std::size_t size) {
    return fails("malloc") ? nullptr : std::realloc(block, size);
}

void* allocate_aligned(std::size_t size, std::size_t alignment) {
    return fails("malloc") ? nullptr : _aligned_malloc(size, alignment);
}

int write_file(int file, const void* data, unsigned size) {
    return _write(file, data, fails("_write") && size > 1 ? size / 2 : size);
}

struct Import {
    const char* name;
    void* stand_in;
};
template <class Function> void* place_of(Function* function) {
    return reinterpret_cast<void*>(function);
}
const Import imports[] = {
    {"VirtualAlloc", place_of(allocate_pages)},      {"VirtualFree", place_of(free_pages)},
    {"CreateEventW", place_of(create_event)},        {"malloc", place_of(allocate)},
    {"calloc", place_of(allocate_cleared)},          {"realloc", place_of(resize)},
    {"_aligned_malloc", place_of(allocate_aligned)}, {"_write", place_of(write_file)}};

void lead_through_here(char* library) {
    const auto at = [library](auto offset) { return library + offset; };
    const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(library);
    const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(at(dos->e_lfanew));
    const IMAGE_DATA_DIRECTORY& table =
        headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    const auto* from = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(at(table.VirtualAddress));
    for (; from->Name != 0; ++from) {
        const auto* name = reinterpret_cast<const IMAGE_THUNK_DATA*>(at(from->OriginalFirstThunk));
        auto* slot = reinterpret_cast<void**>(at(from->FirstThunk));
        for (; name->u1.AddressOfData != 0; ++name, ++slot) {
            const auto* const imported = at(name->u1.AddressOfData) + 2; // behind a hint
            for (const Import& import : imports) {
                DWORD before = 0;
                if (std::strcmp(imported, import.name) == 0 &&
                    VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &before) != 0) {
                    *slot = import.stand_in;
                }
            }
        }
    }
}

// Before any thread of the program's.
const bool begun = [] {
    const char* const plan = std::getenv("KXM_INJECT");
    if (plan == nullptr || std::sscanf(plan, "%15[^:]:%ld", call, &each) != 2 || each < 1) {
        return false;
    }
    mapped = mem_Footprint() * 1024;
    lead_through_here(reinterpret_cast<char*>(GetModuleHandleA("KXMBasMem.dll")));
    return true;
}();

} // namespace

bool injected_account(InjectedAccount& account) {
    // On a busy machine threads may not meet in any lock, and then none wants its event.
    const bool met = calls >= each || std::strcmp("CreateEventW", call) == 0;
    account = {mapped, nullptr, 0, 0, met};
    return begun;
}
