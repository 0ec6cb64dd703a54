// Debug help on Windows: the system's own libraries, with the records laid out as theirs.
#include "platform/os.h"
#include "platform/symbol_name.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <windows.h>

#include <dbghelp.h>

// The system's own capture, entered so that the caller is the one it sees.
__asm__(R"(
    .text
    .globl os_context_capture
    .def os_context_capture; .scl 2; .type 32; .endef
os_context_capture:
    jmp *__imp_RtlCaptureContext(%rip)
)");

namespace os {
namespace {

static_assert(sizeof(StackFrame) == sizeof(STACKFRAME64));
static_assert(offsetof(StackFrame, frame) == offsetof(STACKFRAME64, AddrFrame));
static_assert(offsetof(StackFrame, reserved) == offsetof(STACKFRAME64, Reserved));
static_assert(flat_mode == AddrModeFlat);
static_assert(sizeof(SymbolRecord) == sizeof(IMAGEHLP_SYMBOL64));
static_assert(offsetof(SymbolRecord, name) == offsetof(IMAGEHLP_SYMBOL64, Name));
static_assert(sizeof(LineRecord) == sizeof(IMAGEHLP_LINE64));
static_assert(offsetof(LineRecord, file_name) == offsetof(IMAGEHLP_LINE64, FileName));
static_assert(sizeof(Context) == sizeof(CONTEXT) && alignof(Context) >= alignof(CONTEXT));

constexpr const char* well_known[] = {
    R"(C:\Program Files (x86)\Microsoft Visual Studio 14.0\Common7\IDE\dbghelp.dll)",
    R"(C:\Program Files (x86)\Microsoft Visual Studio 12.0\Common7\IDE\dbghelp.dll)",
    R"(C:\Program Files (x86)\Microsoft Visual Studio 11.0\Common7\IDE\dbghelp.dll)",
    R"(C:\Program Files (x86)\Microsoft Visual Studio 10.0\Common7\IDE\dbghelp.dll)",
    R"(C:\Windows\system32\dbghelp.dll)",
    nullptr,
};
constexpr DebugHelp help{"dbghelp.dll", true, well_known, true};

// The system tells a frame's stack pointer as its frame. Wine tells the frame pointer instead, which
// code that is built without one uses for anything, 0 among it; 0 means to a caller that the walk has
// lost its way.
std::atomic<decltype(&::StackWalk64)> system_walk{nullptr};

BOOL walk_with_frame(DWORD machine, HANDLE process, HANDLE thread, STACKFRAME64* frame,
                     void* context, PREAD_PROCESS_MEMORY_ROUTINE64 read,
                     PFUNCTION_TABLE_ACCESS_ROUTINE64 table_access,
                     PGET_MODULE_BASE_ROUTINE64 module_base,
                     PTRANSLATE_ADDRESS_ROUTINE64 translate) {
    const BOOL walked = system_walk.load(std::memory_order_relaxed)(
        machine, process, thread, frame, context, read, table_access, module_base, translate);
    if (walked != 0 && frame->AddrFrame.Offset == 0) {
        frame->AddrFrame.Offset = frame->AddrStack.Offset;
    }
    return walked;
}

// The debug help knows the modules that were loaded when it was set up; of a later one it is told when
// an address in it comes up.
std::atomic<decltype(&::SymGetModuleBase64)> system_module_base{nullptr};
std::atomic<decltype(&::SymLoadModule64)> system_load_module{nullptr}; // may be missing

DWORD64 module_base_loaded(HANDLE process, DWORD64 address) {
    const auto module_base = system_module_base.load(std::memory_order_relaxed);
    const auto load_module = system_load_module.load(std::memory_order_relaxed);
    const DWORD64 base = module_base(process, address);
    HMODULE module = nullptr;
    char path[MAX_PATH];
    constexpr DWORD by_address =
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    if (base != 0 || load_module == nullptr ||
        GetModuleHandleExA(by_address, reinterpret_cast<const char*>(address), &module) == 0 ||
        GetModuleFileNameA(module, path, sizeof path) == 0) {
        return base;
    }
    load_module(process, nullptr, path, nullptr, reinterpret_cast<DWORD64>(module), 0);
    return module_base(process, address);
}

template <class Function> Function function_of(Module module, const char* name) {
    // By way of a type that fits every function.
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name)));
}

} // namespace

Module module_load(const char* file_name) {
    return LoadLibraryA(file_name);
}

void* module_symbol(Module module, const char* name) {
    void* const function = function_of<void*>(module, name);
    if (function != nullptr && std::strcmp(name, "StackWalk64") == 0) {
        system_walk = reinterpret_cast<decltype(&::StackWalk64)>(function);
        return reinterpret_cast<void*>(&walk_with_frame);
    }
    if (function != nullptr && std::strcmp(name, "SymGetModuleBase64") == 0) {
        system_load_module = function_of<decltype(&::SymLoadModule64)>(module, "SymLoadModule64");
        system_module_base = reinterpret_cast<decltype(&::SymGetModuleBase64)>(function);
        return reinterpret_cast<void*>(&module_base_loaded);
    }
    return function;
}

void module_release(Module module) {
    FreeLibrary(static_cast<HMODULE>(module));
}

const DebugHelp& debug_help() {
    return help;
}

void* current_process() {
    return GetCurrentProcess();
}

void* current_thread() {
    return GetCurrentThread();
}

void make_readable(char* symbol, std::size_t capacity) {
    // The runtime's thread start has no symbol of its own on the system itself, which reports it by
    // the export before it, "endthreadex". Where it has one, it means the same.
    if (std::strcmp(symbol, "_beginthreadex_trampoline") == 0) {
        copy_symbol("endthreadex", symbol, capacity);
    } else if (std::strncmp(symbol, "_Z", 2) == 0) {
        char* const demangled = abi::__cxa_demangle(symbol, nullptr, nullptr, nullptr);
        if (demangled != nullptr) {
            cut_to_name(demangled);
            copy_symbol(demangled, symbol, capacity);
            std::free(demangled);
        }
    }
}

bool context_of_exception(const void* exception_pointers, Context& context) {
    const CONTEXT* const record =
        static_cast<const EXCEPTION_POINTERS*>(exception_pointers)->ContextRecord;
    if (record == nullptr) {
        return false;
    }
    std::memcpy(context.storage, record, sizeof(CONTEXT));
    return true;
}

ContextPosition context_position(const Context& context) {
    const auto word = [&](std::size_t offset) {
        std::uint64_t value = 0;
        std::memcpy(&value, context.storage + offset, sizeof value);
        return value;
    };
    return {word(offsetof(CONTEXT, Rip)), word(offsetof(CONTEXT, Rsp)),
            word(offsetof(CONTEXT, Rbp))};
}

std::size_t widen(const char* text, unsigned short* wide, std::size_t capacity) {
    auto* const target = reinterpret_cast<wchar_t*>(wide);
    const std::size_t length = std::min(std::strlen(text), capacity - 1);
    const int stored = MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(length), target,
                                           static_cast<int>(capacity - 1));
    wide[stored] = 0;
    return static_cast<std::size_t>(stored);
}

bool narrow(const unsigned short* wide, char* text, std::size_t capacity) {
    const auto* const source = reinterpret_cast<const wchar_t*>(wide);
    const bool fits = WideCharToMultiByte(CP_ACP, 0, source, -1, text, static_cast<int>(capacity),
                                          nullptr, nullptr) > 0;
    if (!fits) {
        text[0] = '\0';
    }
    return fits;
}

void set_last_error(std::uint32_t code) {
    SetLastErrorEx(code, 1);
}

} // namespace os
