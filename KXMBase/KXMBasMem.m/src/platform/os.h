// The boundary to the operating system: everything the library asks of a system, and nothing else
// calls one. Each group below has one implementation file per system (linux/os_<group>.cpp and
// windows/os_<group>.cpp; os_common.cpp holds what standard C++ can do alone).
//
// Preconditions that hold for every function here: it may be called from any thread; it allocates
// nothing through this library (so that each may be used under the heap's lock, in a failure report
// or before the library has started); it throws nothing. Sizes are bytes unless a name says otherwise.
// Failures are reported by the result alone, never by a message.
//
// What differs between the systems and matters to a caller is data here (Properties), not a
// conditional there.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/compiler.h"

namespace os {

struct GranuleMap;

// ---------------------------------------------------------------------------------------------
// Properties

/// Units and separators of the running system. Constant for the life of the process.
struct Properties {
    std::size_t page_size;              ///< unit of protection and commitment
    std::size_t allocation_granularity; ///< every vm_allocate starts on a multiple of this
    char directory_separator;           ///< between folder and file: '\\' or '/'
    char path_list_separator;           ///< between folders in PATH: ';' or ':'
    const char* source_marker_opt;      ///< "opt" followed by the directory separator
    const char* source_marker_bsf;      ///< "bsf" followed by the directory separator
};
const Properties& properties();

// ---------------------------------------------------------------------------------------------
// Virtual memory. Zeroed, page-aligned, readable and writable memory straight from the system.

enum class Placement {
    segment, ///< upward, next to the previous segment where the address space allows
    direct,  ///< from the top of the address space downward, apart from the segments
};

/// The state and type words of a region carry these values on every system; reports print them.
inline constexpr std::uint32_t state_commit = 0x1000;  // 4096
inline constexpr std::uint32_t state_reserve = 0x2000; // 8192
inline constexpr std::uint32_t state_free = 0x10000;   // 65536
inline constexpr std::uint32_t type_private = 0x20000; // 131072
inline constexpr std::uint32_t type_mapped = 0x40000;  // 262144
inline constexpr std::uint32_t type_image = 0x1000000; // 16777216

/// A run of pages with one state, as vm_query finds it.
struct Region {
    std::uintptr_t base;            ///< the page of the queried address
    std::uintptr_t allocation_base; ///< start of the system allocation it belongs to; 0 when free
    std::size_t size;               ///< bytes from base to the end of the run
    std::uint32_t state;            ///< state_commit, state_reserve or state_free
    std::uint32_t type;             ///< type_private, type_mapped, type_image; 0 when free
};

/// A new system allocation of `size` bytes rounded up to whole pages, or null. Its address is a
/// multiple of the allocation granularity.
void* vm_allocate(std::size_t size, Placement placement);

/// Releases one whole system allocation made by vm_allocate.
/// Fails (false) unless `base` is the start of one. pre: nobody uses the memory any more.
bool vm_release(void* base);

/// Releases the whole system allocations that lie one directly behind another from `base` on, as
/// many as fit in `size`, and returns their bytes. A range is gone when that is `size`; a tail, a
/// hole or a part ends it early. pre: as vm_release.
std::size_t vm_release_run(void* base, std::size_t size);

/// The region that holds `address`; false when the system does not answer for it.
bool vm_query(const void* address, Region& region);

/// The same for one caller that asks for the whole address space, upward. Where a system lists its
/// regions from the lowest on alone, the list is gone through once for all queries, and not once for
/// each; what changes shortly above the last address asked for may be seen late.
/// pre: no address is below the one before. One thread at a time.
class UpwardQueries {
public:
    UpwardQueries();
    ~UpwardQueries();
    UpwardQueries(const UpwardQueries&) = delete;
    UpwardQueries& operator=(const UpwardQueries&) = delete;

    bool query(const void* address, Region& region);

private:
    alignas(8) unsigned char storage_[3072];
};

/// Takes `size` bytes of address space for good and backs them with nothing, or null. What it
/// took is known to vm_query as reserved; nobody releases it.
void* vm_reserve(std::size_t size);

/// Tells, without a lock, whether vm_allocate handed an address out: granule_map.h. Null before the first
/// vm_allocate and on systems that do not keep one; the same ever after.
const GranuleMap* vm_granules();

// ---------------------------------------------------------------------------------------------
// Threads and locks

/// Automatic-reset event: set() lets exactly one wait() through, and remembers one such permission
/// when nobody waits yet. Null from event_create means that the system refused.
using Event = void*;
Event event_create();
bool event_wait(Event event);  ///< false when the system refused, or there is no event
bool event_set(Event event);   ///< likewise
void event_close(Event event); ///< pre: nobody waits

/// A recursive lock owned by a thread. Lives where the caller puts it; init before use.
struct alignas(8) CriticalSection {
    unsigned char storage[64];
};
void critical_section_init(CriticalSection& section);
void critical_section_delete(CriticalSection& section); ///< pre: free, and never used again
void critical_section_enter(CriticalSection& section);
bool critical_section_try_enter(CriticalSection& section);
void critical_section_leave(CriticalSection& section); ///< pre: held by the calling thread

// A process that makes another one as its copy, with the calling thread alone: fork. Whatever lock another
// thread holds at that moment would stay held in the child for good.

/// The calling thread runs `before` ahead of each fork, and after it `in_parent` or, in the new process,
/// `in_child`. Where processes are not copied, none is ever run. pre: called once, by the loading thread.
void at_fork(void (*before)(), void (*in_parent)(), void (*in_child)());
/// This room's own part in it, for those three: takes and gives back its locks, and lets the child's thread
/// learn its own number.
void lock_for_fork();
void unlock_in_parent();
void renew_in_child();

/// A thread-local slot. Numbers start at 1, so that a client may use 0 for "none"; -1 when there are no
/// more. A fresh slot reads null in every thread. A value stays until its thread has ended.
int tls_alloc();
void tls_free(int slot);
void* tls_get(int slot);
void tls_set(int slot, void* value);

std::uint32_t thread_id(); ///< the system's own number for the calling thread

/// True while the process certainly has one thread, so that a lock may count with plain adds. It is
/// false before a second thread runs, so a lock taken with a plain add is released rightly later.
/// Inline, because locks ask on their fast path: the word is the system's own.
KXM_HIDDEN extern const char* const single_threaded_word;
inline bool single_threaded() {
    return *single_threaded_word != 0;
}

// ---------------------------------------------------------------------------------------------
// Process, machine and drives

struct ProcessMemory {
    std::uint64_t private_bytes;      ///< committed for this process alone, now
    std::uint64_t peak_private_bytes; ///< the highest that ever was
    std::uint64_t resident_bytes;     ///< in physical memory, now
};
bool process_memory(ProcessMemory& figures);

/// The record of the system's newer memory function, MEMORYSTATUSEX. Bytes. That function is also
/// found by name, "GlobalMemoryStatusEx" in memory_module: an int(MachineMemory*), 0 when it fails.
struct MachineMemory {
    std::uint32_t length = 64; ///< of this record
    std::uint32_t load_percent = 0;
    std::uint64_t total_physical = 0, available_physical = 0;
    std::uint64_t total_page_file = 0, available_page_file = 0; ///< what may be committed
    std::uint64_t total_virtual = 0, available_virtual = 0;     ///< the process's address space
    std::uint64_t available_extended_virtual = 0;
};
static_assert(sizeof(MachineMemory) == 64);
inline constexpr const char* memory_module = "kernel32.dll";
bool machine_memory(MachineMemory& figures); ///< figures untouched when it fails

/// The same from the older function, MEMORYSTATUS, which cannot fail: what it cannot tell it fills
/// with ones.
struct OlderMachineMemory {
    std::uint32_t length = 56; ///< of this record
    std::uint32_t load_percent = 0;
    std::uint64_t total_physical = 0, available_physical = 0;
    std::uint64_t total_page_file = 0, available_page_file = 0;
    std::uint64_t total_virtual = 0, available_virtual = 0;
};
static_assert(sizeof(OlderMachineMemory) == 56);
void older_machine_memory(OlderMachineMemory& figures);

std::uint32_t process_id();

// Drives. `root` is what the system takes: the root of a drive on Windows, any path on Linux, where the
// answer is that of the file system it lies on. For the space, null is the working folder's.

/// Kind of drive that holds `root`, in the reference system's numbers: 0 unknown, 1 no such root,
/// 2 removable, 3 fixed, 4 remote, 5 optical, 6 memory disk. Linux tells none from fixed that is
/// removable.
std::uint32_t drive_type(const char* root);

struct DriveSpace {
    std::uint32_t sectors_per_cluster, bytes_per_sector;
    std::uint64_t free_clusters, total_clusters;
};
bool drive_space(const char* root, DriveSpace& space);

std::uint32_t last_error(); ///< the calling thread's last system error
/// Keeps errno and the calling thread's last system error as they are while it lives: for what is done by
/// the way, whose failures are none of the caller's.
class KeptError {
public:
    KeptError();
    ~KeptError();
    KeptError(const KeptError&) = delete;
    KeptError& operator=(const KeptError&) = delete;

private:
    int errno_;
    std::uint32_t last_;
};
/// Text of a system error code, NUL-terminated, cut to `capacity`. Returns its length, or 0 when
/// the system has no text for it.
std::size_t error_text(std::uint32_t code, char* buffer, std::size_t capacity);

// ---------------------------------------------------------------------------------------------
// C runtime beyond the standard

/// The C runtime's allocator as the back ends call it. It is the runtime's own unless a host that stands in
/// its place has said where the real one is (frame/host.h), before other threads allocate.
struct RuntimeAllocator {
    void* (*malloc)(std::size_t size);
    void* (*calloc)(std::size_t count, std::size_t size);
    void* (*realloc)(void* ptr, std::size_t size);
    void (*free)(void* ptr);
    int (*posix_memalign)(void** ptr, std::size_t alignment, std::size_t size); ///< null on Windows
};
KXM_HIDDEN extern RuntimeAllocator runtime_allocator;

/// A block of `size` bytes at a multiple of `alignment`, any power of two; null when memory is
/// short or the alignment is no power of two. Released by aligned_free alone, which accepts null.
void* aligned_alloc(std::size_t size, std::size_t alignment);
void aligned_free(void* block);

/// Prints like vsnprintf, but with these results: with a text of length L and capacity c,
/// L < c stores text and NUL and returns L; L == c stores the text without NUL and returns L;
/// L > c stores c characters without NUL and returns -1. pre: capacity <= max_bounded_print.
inline constexpr std::size_t max_bounded_print = 4096;
int bounded_print(char* buffer, std::size_t capacity, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/// Reports a broken precondition as the C runtime's own assertion does, and ends the process.
[[noreturn]] void assertion_failed(const char* expression, const char* source, unsigned line);

/// Working folder, NUL-terminated; false (buffer untouched) when it fails or does not fit.
bool current_directory(char* buffer, std::size_t capacity);

/// Figures of the C runtime's own heap, in bytes; false when it offers none.
struct RuntimeHeap {
    std::uint64_t committed, reserved, used, free;
};
bool runtime_heap(RuntimeHeap& figures);

// ---------------------------------------------------------------------------------------------
// Files: unbuffered, binary, created empty or emptied, read-write, permissions 0640.

using File = int; ///< negative when the file could not be made
File file_create(const char* name);
File file_create_wide(const unsigned short* name); ///< name in UTF-16, NUL-terminated
std::int64_t file_write(File file, const void* data, std::size_t size); ///< bytes written, or -1
std::int64_t file_seek(File file, std::int64_t offset);                 ///< from the start; or -1
bool file_close(File file);

// ---------------------------------------------------------------------------------------------
// Debug help. Its functions are bound by their name at run time, so that a system without them shows
// as null pointers. Names, signatures and records are the reference system's: "StackWalk64",
// "SymGetOptions", "SymSetOptions", "SymInitialize", "SymFunctionTableAccess64",
// "SymGetModuleBase64", "SymGetSymFromAddr64", "SymGetLineFromAddr64", "GetModuleBaseNameW". Where a
// system has no such library, this room holds functions of these names.

using Module = void*;
Module module_load(const char* file_name); ///< null when there is no such module
void* module_symbol(Module module, const char* name);
void module_release(Module module); ///< gives one module_load back

/// Where the debug-help library is sought: in the folders of PATH if `in_path`, then under each of
/// `places`, whose end is marked by null. And whether its functions serve one thread at a time.
struct DebugHelp {
    const char* file_name;
    bool in_path;
    const char* const* places;
    bool one_thread;
};
const DebugHelp& debug_help();

void* current_process(); ///< as the functions of the debug help take it
void* current_thread();

struct FrameAddress {
    std::uint64_t offset;
    std::uint16_t segment;
    std::uint32_t mode;
};
inline constexpr std::uint32_t flat_mode = 3;

/// STACKFRAME64. Cleared but for the first five addresses it means a walk that begins: the first
/// step gives the context's own frame, each further one a caller.
struct StackFrame {
    FrameAddress pc, return_address, frame, stack, backing_store;
    void* function_table_entry;
    std::uint64_t parameters[4];
    std::int32_t far_call, is_virtual;
    std::uint64_t reserved[3];
    std::uint64_t kernel_help[14];
};

/// IMAGEHLP_SYMBOL64. The name goes on behind the record, for max_name_length bytes.
struct SymbolRecord {
    std::uint32_t size_of_struct; ///< 32
    std::uint64_t address;
    std::uint32_t size, flags;
    std::uint32_t max_name_length;
    char name[4];
};
static_assert(sizeof(SymbolRecord) == 32);

/// IMAGEHLP_LINE64. The name belongs to the debug help.
struct LineRecord {
    std::uint32_t size_of_struct; ///< 40
    void* key;
    std::uint32_t line_number;
    char* file_name;
    std::uint64_t address;
};
static_assert(sizeof(LineRecord) == 40);

/// Makes a linker's symbol the name a programmer wrote, without parameters, in place; leaves other
/// names alone. The name of the function in which the runtime starts a thread becomes "endthreadex".
void make_readable(char* symbol, std::size_t capacity);

/// Registers of a thread; the size of the larger system's record.
struct alignas(16) Context {
    unsigned char storage[1232];
};
struct ContextPosition {
    std::uint64_t instruction, stack, frame;
};
/// Fills in the caller's registers, as they are after this call returns.
extern "C" void os_context_capture(Context& context);
/// The context that an exception filter (or signal handler) was given; false when it holds none.
bool context_of_exception(const void* exception_pointers, Context& context);
ContextPosition context_position(const Context& context);

/// The system's wide form (UTF-16) of a narrow text, cut to `capacity` - 1 and terminated. Returns
/// its length. pre: capacity > 0.
std::size_t widen(const char* text, unsigned short* wide, std::size_t capacity);
/// The way back, with the terminator; false, and an empty text, when it does not fit.
/// pre: capacity > 0.
bool narrow(const unsigned short* wide, char* text, std::size_t capacity);

void set_last_error(std::uint32_t code); ///< what last_error() gives the calling thread next

/// Runs work(argument) and returns true; returns false when it ended in a memory, arithmetic or
/// illegal-instruction fault of the calling thread, a stack overflow included. Objects alive inside
/// `work` at the fault are not destroyed. Works inside a handler of such a fault, nests, and serves
/// any number of threads; faults of other threads go where they went before.
bool guarded_call(void (*work)(void*), void* argument);

// ---------------------------------------------------------------------------------------------
// Life of the library

/// One static object of this type stands last among the library's static objects. Where the system
/// does not call DllMain by itself, the object does so when it is built and destroyed, so that on
/// every system loading starts the library after all its statics and unloading stops it before any
/// of them goes.
struct LibraryLifetime {
    LibraryLifetime();
    ~LibraryLifetime();
    LibraryLifetime(const LibraryLifetime&) = delete;
    LibraryLifetime& operator=(const LibraryLifetime&) = delete;
};

} // namespace os
