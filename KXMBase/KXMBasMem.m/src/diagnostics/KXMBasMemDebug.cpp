// See KXMBasMemDebug.h.
#include "KXMBasMemDebug.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/compiler.h"
#include "platform/os.h"

HINSTANCE KXMBasMemDebug::s_DBHELP = nullptr;

namespace {

constexpr std::uint32_t dll_init_failed = 1114;
constexpr std::size_t path_bytes = 260;

// Stands for anybody who may have filled in the memory.
KXM_NEVER_INLINE volatile std::int32_t* let_see(volatile std::int32_t* memory) {
    volatile std::int32_t* volatile seen = memory;
    return seen;
}

os::Module load_from_folder(const char* folder, const char* file_name) {
    char path[path_bytes];
    const int length = std::snprintf(path, sizeof path, "%s%c%s", folder,
                                     os::properties().directory_separator, file_name);
    const bool fits = length > 0 && static_cast<std::size_t>(length) < sizeof path;
    return fits ? os::module_load(path) : nullptr; // no module has a longer name
}

// Cuts the process's own PATH up in place, up to the folder where the search ends: meant.
os::Module load_from_path(const char* file_name) {
    char* const path = std::getenv("PATH");
    if (path == nullptr) {
        return nullptr;
    }
    const char separators[] = {os::properties().path_list_separator, '\0'};
    for (char* folder = std::strtok(path, separators); folder != nullptr;
         folder = std::strtok(nullptr, separators)) {
        os::Module const module = load_from_folder(folder, file_name);
        if (module != nullptr) {
            return module;
        }
    }
    return nullptr;
}

} // namespace

HINSTANCE KXMBasMemDebug::LoadDBHELP() {
    if (s_DBHELP != nullptr) {
        return s_DBHELP;
    }
    const os::DebugHelp& help = os::debug_help();
    os::Module module = help.in_path ? load_from_path(help.file_name) : nullptr;
    for (const char* const* place = help.places; module == nullptr && *place != nullptr; ++place) {
        module = os::module_load(*place);
    }
    if (module == nullptr) {
        std::fputs("\n*** Warnining: DBGHELP.DLL is not installed on this system.\n", stderr);
        os::set_last_error(dll_init_failed);
    }
    return static_cast<HINSTANCE>(module);
}

void KXMBasMemDebug::Demangle(char*, std::uint64_t) {
    volatile char first[512] = {}, second[512] = {};
    static_cast<void>(first);
    static_cast<void>(second);
}

KXMBasMemStackWalker::KXMBasMemStackWalker() {}

KXMBasMemStackWalker::~KXMBasMemStackWalker() {}

char* KXMBasMemStackWalker::CurrentCallStack(char const*, char const*, int) {
    return nullptr;
}

void KXMBasMemStackWalker::Backtrace() {}

KXM_NO_SANITIZE void KXMBasMemError01() {
    volatile std::int32_t array[100];
    array[0] = 0;
    // Through a number, since the compiler sees the array's end.
    const volatile std::size_t far_index = 8000000;
    // cppcheck-suppress arrayIndexOutOfBounds ; that is the fault
    static_cast<void>(array[far_index]);
}

KXM_NO_SANITIZE void KXMBasMemError02() {
    volatile std::int32_t array[2000][2000];
    // The call stands at the far end of the frame, which is what overflows where the element read
    // would still lie in a large stack.
    volatile std::int32_t* const rows = let_see(&array[0][0]);
    static_cast<void>(rows[1100 * 2000 + 1100]);
}

void KXMBasMemError03() {
    throw omi_FatalError{"FatalError", 101};
}

int DUMMY_STACKWALK(std::uint32_t, void*, void*, void*, void*, void*,
                    KXMBasCallStack::FunctionTableAccessFunction,
                    KXMBasCallStack::ModuleBaseFunction, void*) {
    return 0;
}

std::uint32_t DUMMY_SYMGETOPTIONS() {
    return 0;
}

std::uint32_t DUMMY_SYMSETOPTIONS(std::uint32_t) {
    return 0;
}

int DUMMY_SYMINITIALIZE(void*, char const*, int) {
    return 0;
}

int DUMMY_SYMCLEANUP(void*) {
    return 0;
}

std::uint32_t DUMMY_GETTHREADID(void*) {
    return 0;
}

void* DUMMY_SYMFUNCTIONTABLEACCESS(void*, std::uint64_t) {
    return nullptr;
}

std::uint64_t DUMMY_SYMGETMODULEBASE(void*, std::uint64_t) {
    return 0;
}

std::uint32_t DUMMY_GETMODULEBASENAME(void*, HINSTANCE, unsigned short*, std::uint32_t) {
    return 0;
}

int DUMMY_SYMGETSYMFROMADDR(void*, std::uint64_t, std::uint64_t*, void*) {
    return 0;
}

int DUMMY_SYMGETLINEFROMADDR(void*, std::uint64_t, std::uint32_t*, void*) {
    return 0;
}
