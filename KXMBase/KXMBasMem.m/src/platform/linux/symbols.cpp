// See symbols.h. GCC's libbacktrace reads the debug information; it maps pages and allocates nothing.
//
// It learns which objects (the program and its libraries) are loaded when it is first asked. So each
// reader has a list of the objects that it knows, and for an address in another one, as a library that
// was loaded later, a new reader is made. A reader cannot be given back, and costs the pages of what it
// has read, so there are no more than a few; after that such addresses are named by their place.
//
// What is read may be many times the memory that a program has left whose request was refused, and the kernel kills
// rather than refuses it. So before anything is read it is reckoned, and the pages that a reader then asks for are
// refused before they are short: addresses are named by their place, too. A report with such names is better than none.
//
// A look-up takes some 10 microseconds once the information is read, a demangling as much. Both repeat
// for each capture, so what was found is kept by address in a table of pages of our own. Who finds the
// table in use does without it: a signal handler may be what interrupted the user, and must not wait.
#include "platform/linux/symbols.h"

#include "platform/linux/fork_parts.h"
#include "platform/linux/memory_left.h"
#include "platform/os.h"
#include "platform/symbol_name.h"

#include <atomic>
#include <backtrace.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>

// The runtime's demangler, in the form that calls back instead of allocating.
extern "C" int __gcclibcxx_demangle_callback(const char* mangled,
                                             void (*callback)(const char*, std::size_t, void*),
                                             void* argument);

namespace os {
namespace {

// ---- Readers

// What tells an object from any other that is or was loaded: its place and name. 0: none.
std::uint64_t object_at(std::uint64_t address) {
    dl_find_object object;
    if (_dl_find_object(reinterpret_cast<void*>(address), &object) != 0) {
        return 0;
    }
    constexpr std::uint64_t prime = 0x100000001b3;
    std::uint64_t hash = 0xcbf29ce484222325;
    hash = (hash ^ reinterpret_cast<std::uintptr_t>(object.dlfo_map_start)) * prime;
    hash = (hash ^ reinterpret_cast<std::uintptr_t>(object.dlfo_map_end)) * prime;
    for (const char* name = object.dlfo_link_map->l_name; *name != '\0'; ++name) {
        hash = (hash ^ static_cast<unsigned char>(*name)) * prime;
    }
    return hash | 1;
}

struct Reader {
    static constexpr std::size_t most_objects = 2000;
    backtrace_state* state;
    std::size_t count;
    std::uint64_t objects[most_objects];

    bool knows(std::uint64_t object) const {
        for (std::size_t i = 0; i < count; ++i) {
            if (objects[i] == object) {
                return true;
            }
        }
        return false;
    }
};

constexpr int most_readers = 16;
std::atomic<int> readers{0};
std::atomic<Reader*> newest{nullptr};

int list_object(dl_phdr_info* information, std::size_t, void* argument) {
    Reader& reader = *static_cast<Reader*>(argument);
    for (int i = 0; i < information->dlpi_phnum; ++i) {
        const ElfW(Phdr)& part = information->dlpi_phdr[i];
        if (part.p_type == PT_LOAD && reader.count < Reader::most_objects) {
            reader.objects[reader.count++] = object_at(information->dlpi_addr + part.p_vaddr);
            break;
        }
    }
    return 0;
}

void no_message(void*, const char*, int) {}

void* pages(std::size_t bytes) {
    void* const memory =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory != MAP_FAILED ? memory : nullptr;
}

// Adds up what the files hold beside what is loaded of them: tables of symbols and debug information.
int add_unloaded(dl_phdr_info* information, std::size_t, void* argument) {
    const char* const name = information->dlpi_name;
    struct stat file {};
    if (stat(name[0] != '\0' ? name : "/proc/self/exe", &file) == 0) {
        auto unloaded = static_cast<std::uint64_t>(file.st_size);
        for (int i = 0; i < information->dlpi_phnum; ++i) {
            const ElfW(Phdr)& part = information->dlpi_phdr[i];
            unloaded -= part.p_type == PT_LOAD && part.p_filesz < unloaded ? part.p_filesz : 0;
        }
        *static_cast<std::uint64_t*>(argument) += unloaded;
    }
    return 0;
}

std::int64_t milliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

std::atomic<std::int64_t> refused_until{0};

// A reader keeps about four times what the files hold of debug information; more, where that is compressed or in files
// of its own, which the allowance below meets. A refusal stands for a while, as each frame of a stack asks.
bool can_afford_reader() {
    const KeptError kept;
    const std::int64_t now = milliseconds();
    if (now < refused_until.load(std::memory_order_relaxed)) {
        return false;
    }
    std::uint64_t unloaded = 0;
    dl_iterate_phdr(add_unloaded, &unloaded);
    const bool affordable = unloaded + sizeof(Reader) <= memory_left() / 5;
    if (!affordable) {
        refused_until.store(now + 100, std::memory_order_relaxed);
    }
    return affordable;
}

// Bytes that readers may still take before it is asked again what is left.
std::atomic<std::int64_t> allowance{0};

bool may_take(std::size_t bytes) {
    constexpr std::int64_t step = std::int64_t{1} << 20;
    constexpr std::uint64_t for_the_rest = 4 * step; // of a report, and for other threads meanwhile
    const auto wanted = static_cast<std::int64_t>(bytes);
    if (allowance.fetch_sub(wanted, std::memory_order_relaxed) >= wanted) {
        return true;
    }
    const bool enough = memory_left() > for_the_rest + bytes;
    allowance.store(enough ? step : 0, std::memory_order_relaxed);
    return enough;
}

Reader* make_reader() {
    Reader* reader = nullptr;
    if (readers.fetch_add(1, std::memory_order_relaxed) < most_readers && can_afford_reader()) {
        reader = static_cast<Reader*>(pages(sizeof(Reader)));
    }
    if (reader != nullptr) {
        dl_iterate_phdr(list_object, reader);
        reader->state = backtrace_create_state(nullptr, 1, no_message, nullptr);
        if (reader->state != nullptr) {
            newest.store(reader, std::memory_order_release);
            return reader;
        }
        munmap(reader, sizeof(Reader));
    }
    readers.fetch_sub(1, std::memory_order_relaxed);
    return nullptr;
}

// ---- One look-up

struct Found {
    const char* function = nullptr; ///< as the linker has it
    const char* file = nullptr;
    int line = 0;
};

bool is_mangled(const char* name) {
    return name != nullptr && name[0] == '_' && name[1] == 'Z';
}

Found look_up(backtrace_state* state, std::uint64_t address) {
    Found found;
    backtrace_pcinfo(
        state, address,
        [](void* argument, std::uintptr_t, const char* file, int line, const char* function) {
            Found& result = *static_cast<Found*>(argument);
            // Of calls that were inlined the innermost comes first. The last is of the function that
            // the address belongs to: name and line are of one function, and seldom of a header. A
            // line table alone knows the innermost.
            if (file != nullptr) {
                result.file = file;
                result.line = line;
            }
            if (function != nullptr) {
                result.function = function;
            }
            return 0;
        },
        no_message, &found);
    // The debug information of a function that no other file sees has its last name only; the linker's
    // table has all of it, unless it was stripped.
    if (!is_mangled(found.function)) {
        backtrace_syminfo(
            state, address,
            [](void* argument, std::uintptr_t, const char* name, std::uintptr_t, std::uintptr_t) {
                Found& result = *static_cast<Found*>(argument);
                if (result.function == nullptr || is_mangled(name)) {
                    result.function = name;
                }
            },
            no_message, &found);
    }
    return found;
}

struct Text {
    char* at;
    char* end;
};

void append(const char* piece, std::size_t length, void* argument) {
    Text& text = *static_cast<Text*>(argument);
    const auto room = static_cast<std::size_t>(text.end - text.at);
    length = length < room ? length : room;
    std::memcpy(text.at, piece, length);
    text.at += length;
}

} // namespace

// What libbacktrace calls in place of mmap (KXMBase/CMakeLists.txt renames it there). A reader to which pages are refused
// stays as it is: it would take as much again, and can give nothing back.
extern "C" __attribute__((visibility("hidden"))) void* kxm_os_reader_mmap(void* hint,
                                                                          std::size_t bytes,
                                                                          int protection, int flags,
                                                                          int file, off_t offset) {
    if (file < 0 && !may_take(bytes)) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return mmap(hint, bytes, protection, flags, file, offset);
}

void make_readable(char* symbol, std::size_t capacity) {
    if (!is_mangled(symbol)) {
        return;
    }
    // What does not fit is cut; names that long are cut by their parameters.
    char demangled[1024];
    Text text{demangled, demangled + sizeof demangled - 1};
    if (__gcclibcxx_demangle_callback(symbol, append, &text) == 0) {
        *text.at = '\0';
        cut_to_name(demangled);
        copy_symbol(demangled, symbol, capacity);
    }
}

namespace {

// A function without a symbol in a known module is named by its place there, as addr2line takes it.
void name_by_place(std::uint64_t address, char* name, std::size_t capacity) {
    dl_find_object object;
    if (_dl_find_object(reinterpret_cast<void*>(address), &object) == 0) {
        const std::uint64_t base = object.dlfo_link_map->l_addr;
        std::snprintf(name, capacity, "+0x%llx", static_cast<unsigned long long>(address - base));
    }
}

// The frame between a signal handler and what it interrupted: the kernel returns there to end it.
bool is_signal_return(std::uint64_t address) {
    constexpr unsigned char code[] = {0x48, 0xc7, 0xc0, 0x0f, 0, 0, 0, 0x0f, 0x05};
    dl_find_object object;
    const auto* const place = reinterpret_cast<const void*>(address + 1);
    return _dl_find_object(const_cast<void*>(place), &object) == 0 &&
           std::memcmp(place, code, sizeof code) == 0;
}

std::atomic<std::uint64_t> thread_starts[8];

bool is_thread_start(std::uint64_t address) {
    for (const auto& start : thread_starts) {
        if (start.load(std::memory_order_relaxed) == address) {
            return true;
        }
    }
    return false;
}

// False where the name is of the place alone, for now.
bool resolve(std::uint64_t address, std::uint64_t object, CodeSymbol& symbol) {
    symbol = {};
    Reader* reader = newest.load(std::memory_order_acquire);
    if (reader == nullptr || !reader->knows(object)) {
        reader = make_reader();
    }
    const Found found = reader != nullptr ? look_up(reader->state, address) : Found{};
    symbol.file = found.file;
    symbol.line = static_cast<std::uint32_t>(found.line);
    // The names under which the walk's reader knows the ends of stacks and the handler's frame.
    if (is_signal_return(address)) {
        copy_symbol("KiUserExceptionDispatcher", symbol.name, sizeof symbol.name);
    } else if (found.function != nullptr) {
        copy_symbol(found.function, symbol.name, sizeof symbol.name);
        make_readable(symbol.name, sizeof symbol.name);
    } else {
        name_by_place(address, symbol.name, sizeof symbol.name);
    }
    return reader != nullptr;
}

// ---- The table

// Open addressing by linear probing; when a part of it is full, all of it is forgotten.
struct Table {
    static constexpr std::size_t slots = 4096, most = slots / 2,
                                 text_bytes = std::size_t{256} * 1024;
    struct Entry {
        std::uint64_t address; ///< 0: empty
        std::uint64_t object;  ///< that the address was in
        const char* name;      ///< in `text`
        const char* file;
        std::uint32_t line;
    };
    std::size_t used, text_used;
    Entry entries[slots];
    char text[text_bytes];

    Entry& slot_of(std::uint64_t address) {
        std::size_t i = address * 0x9e3779b97f4a7c15 >> 52;
        while (entries[i].address != 0 && entries[i].address != address) {
            i = (i + 1) % slots;
        }
        return entries[i];
    }
    void forget() {
        std::memset(entries, 0, sizeof entries);
        used = 0;
        text_used = 0;
    }
};
static_assert(Table::slots == std::size_t{1} << (64 - 52));

std::atomic_flag table_in_use = ATOMIC_FLAG_INIT;
Table* table = nullptr; // by the user of table_in_use

class TableUse {
public:
    TableUse() : held_(!table_in_use.test_and_set(std::memory_order_acquire)) {
        if (held_ && table == nullptr) {
            table = static_cast<Table*>(pages(sizeof(Table)));
        }
    }
    ~TableUse() {
        if (held_) {
            table_in_use.clear(std::memory_order_release);
        }
    }
    TableUse(const TableUse&) = delete;
    TableUse& operator=(const TableUse&) = delete;
    Table* get() const { return held_ ? table : nullptr; }

private:
    bool held_;
};

bool find(std::uint64_t address, std::uint64_t object, CodeSymbol& symbol) {
    const TableUse use;
    if (use.get() == nullptr) {
        return false;
    }
    const Table::Entry& entry = use.get()->slot_of(address);
    if (entry.address == 0 || entry.object != object) {
        return false;
    }
    copy_symbol(entry.name, symbol.name, sizeof symbol.name);
    symbol.file = entry.file;
    symbol.line = entry.line;
    return true;
}

void keep(std::uint64_t address, std::uint64_t object, const CodeSymbol& symbol) {
    const TableUse use;
    Table* const to = use.get();
    if (to == nullptr) {
        return;
    }
    const std::size_t bytes = std::strlen(symbol.name) + 1;
    if (to->used >= Table::most || to->text_used + bytes > Table::text_bytes) {
        to->forget();
    }
    Table::Entry& entry = to->slot_of(address); // empty, or of an object that is gone
    to->used += entry.address == 0 ? 1 : 0;
    char* const name = to->text + to->text_used;
    std::memcpy(name, symbol.name, bytes);
    to->text_used += bytes;
    entry = {address, object, name, symbol.file, symbol.line};
}

} // namespace

bool symbols_start() {
    return newest.load(std::memory_order_acquire) != nullptr || make_reader() != nullptr ||
           !can_afford_reader();
}

void symbol_at(std::uint64_t address, CodeSymbol& symbol) {
    if (is_thread_start(address)) {
        symbol = {};
        copy_symbol("endthreadex", symbol.name, sizeof symbol.name);
        return;
    }
    const std::uint64_t object = object_at(address);
    if (!find(address, object, symbol)) {
        if (resolve(address, object, symbol)) {
            keep(address, object, symbol);
        }
    }
}

void note_thread_start(std::uint64_t address) {
    for (auto& start : thread_starts) {
        std::uint64_t none = 0;
        if (start.compare_exchange_strong(none, address, std::memory_order_relaxed) ||
            none == address) {
            return;
        }
    }
}

// Whoever was at the table is not here to finish, so what it holds may be half written.
void fork_parts::renew_symbols() {
    if (table_in_use.test(std::memory_order_relaxed)) {
        table = nullptr;
        table_in_use.clear(std::memory_order_relaxed);
    }
}

} // namespace os
