// Debug help on Linux: the reference system's functions, by their names, over the unwinder
// (stack_walk) and the reader of debug information (symbols), and what else is bound by name. Handles of processes and threads mean
// nothing here: the calling process is the only one.
#include "platform/linux/stack_walk.h"
#include "platform/linux/symbols.h"
#include "platform/linux/utf16.h"
#include "platform/os.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <iterator>
#include <link.h>
#include <unistd.h>

namespace os {
namespace {

constexpr std::uint64_t walking = 1; // in a frame's reserved word: the first step was made

int stack_walk(std::uint32_t, void*, void*, StackFrame* frame, Context* context, void*,
               void* (*)(void*, std::uint64_t), std::uint64_t (*)(void*, std::uint64_t), void*) {
    if (frame->reserved[0] != walking) {
        frame->reserved[0] = walking;
        return 1;
    }
    Registers& registers = registers_of(*context);
    bool bottom = false;
    if (!step_to_caller(registers, bottom)) {
        return 0;
    }
    frame->pc.offset = code_address(registers);
    frame->frame.offset = registers.word[Registers::rsp];
    frame->stack.offset = registers.word[Registers::rsp];
    if (bottom) {
        note_thread_start(frame->pc.offset);
    }
    return 1;
}

std::atomic<std::uint32_t> options{0}; // kept as they are set

std::uint32_t get_options() {
    return options;
}

std::uint32_t set_options(std::uint32_t value) {
    return options = value;
}

// The program's own file, whose name the loader does not tell.
class OwnPath {
public:
    void read() {
        int nobody = unread;
        if (state_.compare_exchange_strong(nobody, reading)) {
            const ssize_t length = readlink("/proc/self/exe", path_, sizeof path_ - 1);
            path_[std::max<ssize_t>(length, 0)] = '\0';
            state_.store(known, std::memory_order_release);
        }
    }
    const char* get() const { return state_.load(std::memory_order_acquire) == known ? path_ : ""; }

private:
    enum : int { unread, reading, known };
    std::atomic<int> state_{unread};
    char path_[4096];
};
OwnPath own_path;

int initialize(void*, const char*, int) {
    own_path.read();
    return symbols_start() ? 1 : 0;
}

// The unwinder finds its tables by itself.
void* function_table_access(void*, std::uint64_t) {
    return nullptr;
}

std::uint64_t module_base(void*, std::uint64_t address) {
    dl_find_object object;
    return _dl_find_object(reinterpret_cast<void*>(address), &object) == 0
               ? reinterpret_cast<std::uint64_t>(object.dlfo_map_start)
               : 0;
}

std::uint32_t module_base_name(void*, void* module, unsigned short* buffer, std::uint32_t size) {
    dl_find_object object;
    if (size == 0 || _dl_find_object(module, &object) != 0) {
        return 0;
    }
    const char* path = object.dlfo_link_map->l_name;
    if (path[0] == '\0') { // the program itself
        path = own_path.get();
    }
    const char* const slash = std::strrchr(path, '/');
    return static_cast<std::uint32_t>(utf16_of(slash != nullptr ? slash + 1 : path, buffer, size));
}

int symbol_from_address(void*, std::uint64_t address, std::uint64_t* displacement,
                        SymbolRecord* record) {
    CodeSymbol symbol;
    symbol_at(address, symbol);
    if (symbol.name[0] == '\0' || record->max_name_length == 0) {
        return 0;
    }
    *displacement = 0; // not asked for by anybody here
    const std::size_t length =
        std::min<std::size_t>(std::strlen(symbol.name), record->max_name_length - 1);
    auto* const name = reinterpret_cast<char*>(record) + offsetof(SymbolRecord, name);
    std::memcpy(name, symbol.name, length);
    name[length] = '\0';
    return 1;
}

int line_from_address(void*, std::uint64_t address, std::uint32_t* displacement,
                      LineRecord* record) {
    CodeSymbol symbol;
    symbol_at(address, symbol);
    if (symbol.file == nullptr) {
        return 0;
    }
    *displacement = 0;
    record->line_number = symbol.line;
    record->file_name = const_cast<char*>(symbol.file);
    record->address = address;
    return 1;
}

int memory_status(MachineMemory* figures) {
    return machine_memory(*figures) ? 1 : 0;
}

struct Binding {
    const char* name;
    void* function;
};

template <class Function> void* place_of(Function* function) {
    return reinterpret_cast<void*>(function);
}

char own_module; // what all modules' names load

constexpr const char* well_known[] = {"dbghelp.dll", nullptr};
constexpr DebugHelp help{"dbghelp.dll", false, well_known, false};

} // namespace

Module module_load(const char* file_name) {
    const char* const names[] = {help.file_name, "PSAPI.DLL", memory_module};
    const bool known = std::any_of(std::begin(names), std::end(names), [&](const char* name) {
        return std::strcmp(file_name, name) == 0;
    });
    return known ? &own_module : nullptr;
}

void* module_symbol(Module module, const char* name) {
    const Binding bindings[] = {
        {"StackWalk64", place_of(stack_walk)},
        {"SymGetOptions", place_of(get_options)},
        {"SymSetOptions", place_of(set_options)},
        {"SymInitialize", place_of(initialize)},
        {"SymFunctionTableAccess64", place_of(function_table_access)},
        {"SymGetModuleBase64", place_of(module_base)},
        {"SymGetSymFromAddr64", place_of(symbol_from_address)},
        {"SymGetLineFromAddr64", place_of(line_from_address)},
        {"GetModuleBaseNameW", place_of(module_base_name)},
        {"GlobalMemoryStatusEx", place_of(memory_status)},
    };
    for (const Binding& binding : bindings) {
        if (module == &own_module && std::strcmp(binding.name, name) == 0) {
            return binding.function;
        }
    }
    return nullptr;
}

void module_release(Module) {}

const DebugHelp& debug_help() {
    return help;
}

void* current_process() {
    return nullptr;
}

void* current_thread() {
    return nullptr;
}

std::size_t widen(const char* text, unsigned short* wide, std::size_t capacity) {
    return utf16_of(text, wide, capacity);
}

bool narrow(const unsigned short* wide, char* text, std::size_t capacity) {
    if (!utf8_of(wide, text, capacity)) {
        text[0] = '\0';
        return false;
    }
    return true;
}

void set_last_error(std::uint32_t code) {
    errno = static_cast<int>(code);
}

} // namespace os
