// The capture of a call stack: bind the debug help, walk, and write a line a frame.
//
// The text is built as wide characters in a buffer of the process's and is turned into the narrow text
// that the caller gets after each whole line. What is appended in the round that ends a capture is
// therefore seen in the wide buffer alone, the line of "main" among it: meant.
#include "KXMBasCallStack.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "KXMBasMemDebug.h"
#include "diagnostics/callstack_depth.h"
#include "platform/os.h"

HINSTANCE KXMBasCallStack::s_DBGHELP = nullptr;
HINSTANCE KXMBasCallStack::s_PSAPI = nullptr;
bool KXMBasCallStack::s_SymInitialized = false;
KXMBasCallStack::StackWalkFunction KXMBasCallStack::s_StackWalkFunction = nullptr;
KXMBasCallStack::SymInitializeFunction KXMBasCallStack::s_SymInitialize = nullptr;
KXMBasCallStack::SymGetOptionsFunction KXMBasCallStack::s_SymGetOptions = nullptr;
KXMBasCallStack::SymSetOptionsFunction KXMBasCallStack::s_SymSetOptions = nullptr;
KXMBasCallStack::ThreadIdFunction KXMBasCallStack::s_GetThreadId = nullptr;
KXMBasCallStack::FunctionTableAccessFunction KXMBasCallStack::s_SymFunctionTableAccess = nullptr;
KXMBasCallStack::ModuleBaseFunction KXMBasCallStack::s_SymGetModuleBase = nullptr;
KXMBasCallStack::ModuleBaseNameFunction KXMBasCallStack::s_GetModuleBaseName = nullptr;
KXMBasCallStack::SymFromAddressFunction KXMBasCallStack::s_SymGetSymFromAddr = nullptr;
KXMBasCallStack::LineFromAddressFunction KXMBasCallStack::s_SymGetLineFromAddr = nullptr;

namespace {

using Wide = unsigned short;

constexpr std::size_t text_bytes = 2000;  // of the narrow text
constexpr std::size_t text_length = 2000; // of the wide text, in wide characters
constexpr std::size_t module_length = 100;
constexpr std::size_t pool_bytes = 600;
constexpr std::size_t symbol_bytes = 512;
constexpr std::uint32_t max_symbol_name = 480;

// The longest round: number, module, symbol and file name, from the last place where one may begin.
constexpr std::size_t text_slack = 3000;

// What a capture works in. One set is the process's; a capture that finds it in use, by another thread
// or by one that a handler interrupted, takes pages for another. Where the debug help serves one thread
// at a time, and everywhere until that is set up, it waits for the other thread before, but not for ever:
// that thread may have been stopped.
struct Buffers {
    os::Context context;
    os::StackFrame frame;
    alignas(os::SymbolRecord) unsigned char symbol[symbol_bytes];
    os::LineRecord line;
    Wide text[text_length + text_slack]; // never cleared between captures
    Wide module[module_length];
};

Buffers process_buffers;
std::atomic_flag process_buffers_used = ATOMIC_FLAG_INIT;
std::atomic<std::uint32_t> process_buffers_user{0};
std::atomic<bool> engine_started{false};
constexpr int most_waits = 2000; // of a millisecond

class BufferUse {
public:
    BufferUse() : own_(acquire()) {
        if (own_) {
            process_buffers_user.store(os::thread_id(), std::memory_order_relaxed);
            buffers_ = &process_buffers;
        } else {
            buffers_ =
                static_cast<Buffers*>(os::vm_allocate(sizeof(Buffers), os::Placement::direct));
        }
    }
    ~BufferUse() {
        if (own_) {
            process_buffers_user.store(0, std::memory_order_relaxed);
            process_buffers_used.clear(std::memory_order_release);
        } else if (buffers_ != nullptr) {
            os::vm_release(buffers_);
        }
    }
    BufferUse(const BufferUse&) = delete;
    BufferUse& operator=(const BufferUse&) = delete;
    Buffers* get() const { return buffers_; }

private:
    static bool acquire() {
        const bool alone =
            os::debug_help().one_thread || !engine_started.load(std::memory_order_acquire);
        for (int waits = alone ? most_waits : 0;; --waits) {
            if (!process_buffers_used.test_and_set(std::memory_order_acquire)) {
                return true;
            }
            if (waits == 0 ||
                process_buffers_user.load(std::memory_order_relaxed) == os::thread_id()) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    bool own_;
    Buffers* buffers_;
};

enum class Start { calling_thread, calling_thread_from_filter, exception };

enum class End {
    text,  ///< the text as last converted
    none,  ///< no text; what was allocated for it stays: meant
    fault, ///< no text, as after a fault: what was allocated for it goes
};

constexpr const char* skipped[] = {
    "ExceptCallback",
    "UnhandledExceptionFilter",
    "KXMDmpErrorHandler1",
    "omi_ExceptionReport",
    "longjmp",
    "_C_specific_handler",
    "RtlInitializeResource",
    "KiUserExceptionDispatcher",
    "_chkstk",
    "SignalAction",
    "seh_filter_exe",
    "SignalAction", // twice, as it has always been
    "KXMBasException::DeveloperReport",
    "KXMBasException::Throw",
    "raise",
};

bool is_skipped(const char* name, Start start) {
    // Frames of the error machinery itself; the last one stands in the way of a plain capture only.
    for (const char* const other : skipped) {
        if (std::strcmp(name, other) == 0) {
            return true;
        }
    }
    return start == Start::calling_thread && std::strcmp(name, "SaveCurrentCallStack") == 0;
}

bool ends_stack(const char* name) {
    return std::strcmp(name, "main") == 0 || std::strcmp(name, "endthreadex") == 0;
}

std::size_t length_of(const Wide* wide) {
    std::size_t length = 0;
    while (wide[length] != 0) {
        ++length;
    }
    return length;
}

class Capture {
public:
    Capture(Buffers& buffers, char* text, int limit, Start start, const void* exception_pointers,
            std::int32_t* length)
        : b_(buffers), text_(text), limit_(limit), start_(start),
          exception_pointers_(exception_pointers), length_(length) {}

    End end() const { return end_; }

    static void run(void* capture) { static_cast<Capture*>(capture)->run(); }

private:
    void run() {
        KXMBasCallStack::InitSymbolEngine();
        engine_started.store(KXMBasCallStack::s_SymInitialized, std::memory_order_release);
        if (start_ == Start::exception &&
            !os::context_of_exception(exception_pointers_, b_.context)) {
            return; // as reading the missing record would have faulted
        }
        begin_walk();
        // To lose the frames that capture. A context that was handed in loses its own frame.
        walk();
        if (start_ != Start::exception) {
            walk();
        }
        while (round()) {
        }
    }

    void begin_walk() {
        const os::ContextPosition position = os::context_position(b_.context);
        b_.frame = {};
        b_.frame.pc = {position.instruction, 0, os::flat_mode};
        // Frame and stack pointer change places here, on purpose.
        b_.frame.frame = {position.stack, 0, os::flat_mode};
        b_.frame.stack = {position.frame, 0, os::flat_mode};
    }

    void walk() {
        constexpr std::uint32_t machine_x64 = 34404;
        walked_ = KXMBasCallStack::s_StackWalkFunction(
                      machine_x64, os::current_process(), os::current_thread(), &b_.frame,
                      &b_.context, nullptr, KXMBasCallStack::s_SymFunctionTableAccess,
                      KXMBasCallStack::s_SymGetModuleBase, nullptr) != 0;
    }

    // One frame; false at the end of the capture, which `end_` then tells.
    bool round() {
        if (!walked_) {
            return stop_at_position();
        }
        const std::size_t line_start = position_;
        // Behind this place no line fits into the narrow text any more.
        if (line_start > text_length) {
            return stop(End::text);
        }
        walk();
        if (!walked_) {
            return walk_failed();
        }
        if (++count_ > limit_) {
            return stop_at_position();
        }
        if (b_.frame.frame.offset == 0) {
            complain("*** Error: Could not obtain StackFrame\n");
            print_walk_error();
        }
        if (b_.frame.pc.offset == 0) {
            complain("*** Error: Could not obtain ProgramCounter\n");
            print_walk_error();
        }
        const std::uint64_t base = KXMBasCallStack::s_SymGetModuleBase(os::current_process(), pc());
        if (base == 0) {
            complain("*** Could not get the module base address\n");
            return stop(End::none);
        }
        append_number();
        append_module(base);
        return append_symbol(line_start);
    }

    std::uint64_t pc() const { return b_.frame.pc.offset; }

    void append_number() {
        char number[16];
        std::snprintf(number, sizeof number, "%3d) ", static_cast<int>(count_));
        append(number);
    }

    void append_module(std::uint64_t base) {
        std::memset(b_.module, 0, sizeof b_.module);
        KXMBasCallStack::GetModuleBaseName(os::current_process(), reinterpret_cast<HINSTANCE>(base),
                                           b_.module, module_length);
        append(" ");
        append_padded(b_.module, 26);
    }

    bool append_symbol(std::size_t line_start) {
        std::memset(b_.symbol, 0, sizeof b_.symbol);
        // cppcheck-suppress legacyUninitvar ; it is what is made here
        auto* const record = new (b_.symbol) os::SymbolRecord{};
        record->size_of_struct = sizeof(os::SymbolRecord);
        record->max_name_length = max_symbol_name;
        auto* const name = reinterpret_cast<char*>(b_.symbol) + offsetof(os::SymbolRecord, name);
        std::uint64_t displacement = 0;
        Wide wide[text_length];
        if (KXMBasCallStack::s_SymGetSymFromAddr(os::current_process(), pc(), &displacement,
                                                 record) != 1) {
            os::widen("unknown", wide, text_length);
            append_padded(wide, 40);
            append("\n");
            convert();
            return stop(End::text);
        }
        os::make_readable(name, max_symbol_name);
        if (is_skipped(name, start_)) {
            position_ = line_start;
            --count_;
            return true;
        }
        append("  ");
        const std::size_t length = os::widen(name, wide, text_length);
        // Unsigned: a negative right side is a large one, and never triggers. Meant.
        if (std::uint64_t{length} > std::uint64_t{text_length} - position_ - 562) {
            const std::size_t before = position_;
            append_padded(wide, 40);
            position_ = before;
            return stop(End::text);
        }
        append_padded(wide, 40);
        return append_line(name);
    }

    bool append_line(const char* symbol_name) {
        b_.line = {};
        b_.line.size_of_struct = sizeof(os::LineRecord);
        std::uint32_t displacement = 0;
        if (KXMBasCallStack::s_SymGetLineFromAddr(os::current_process(), pc(), &displacement,
                                                  &b_.line) != 1) {
            append("\n");
        } else {
            append("  ");
            Wide wide[text_length];
            os::widen(b_.line.file_name, wide, text_length);
            const Wide* const file = shortened(wide);
            if (file == nullptr) {
                return stop(End::fault); // such a name has always been read through null
            }
            if (position_ + length_of(file) > 1990) {
                append("...\n");
                return stop(End::text);
            }
            append_padded(file, 0);
            char number[24];
            std::snprintf(number, sizeof number, " (%" PRId32 ")\n",
                          static_cast<std::int32_t>(b_.line.line_number));
            append(number);
        }
        if (ends_stack(symbol_name)) {
            return stop(End::text);
        }
        convert();
        return true;
    }

    // What follows the first "opt/", else the first "bsf/", else the last separator.
    static const Wide* shortened(const Wide* file) {
        for (const char* const marker :
             {os::properties().source_marker_opt, os::properties().source_marker_bsf}) {
            const std::size_t length = std::strlen(marker);
            for (const Wide* at = file; *at != 0; ++at) {
                std::size_t same = 0;
                while (same < length && at[same] == static_cast<unsigned char>(marker[same])) {
                    ++same;
                }
                if (same == length) {
                    return at + length;
                }
            }
        }
        const Wide* last = nullptr;
        for (const Wide* at = file; *at != 0; ++at) {
            if (*at == static_cast<unsigned char>(os::properties().directory_separator)) {
                last = at + 1;
            }
        }
        return last;
    }

    void put(Wide c) {
        if (position_ + 1 < text_length + text_slack) {
            b_.text[position_++] = c;
        }
    }

    void append(const char* ascii) {
        for (; *ascii != '\0'; ++ascii) {
            put(static_cast<unsigned char>(*ascii));
        }
        b_.text[position_] = 0;
    }

    void append_padded(const Wide* wide, std::size_t width) {
        std::size_t length = 0;
        for (; wide[length] != 0; ++length) {
            put(wide[length]);
        }
        for (; length < width; ++length) {
            put(' ');
        }
        b_.text[position_] = 0;
    }

    // Turns what is new in the wide text, which changes no more up to here. A wide text that outgrew
    // the narrow one leaves that as it was.
    void convert() {
        if (text_ != nullptr && !outgrown_) {
            outgrown_ = !os::narrow(b_.text + wide_converted_, text_ + narrow_converted_,
                                    text_bytes - narrow_converted_);
        }
        if (text_ != nullptr && !outgrown_) {
            wide_converted_ = position_;
            narrow_converted_ += std::strlen(text_ + narrow_converted_);
        }
    }

    bool stop(End end) {
        end_ = end;
        return false;
    }

    bool stop_at_position() {
        if (length_ != nullptr) {
            *length_ = static_cast<std::int32_t>(position_);
        }
        return stop(End::text);
    }

    bool walk_failed() {
        complain("*** Error: Could not walk the thread\n");
        print_walk_error();
        std::fputs("CURRENT STACK:\n", stdout);
        print_wide();
        std::fputs("\n", stdout);
        return stop(End::none);
    }

    static void complain(const char* message) {
        const os::KeptError kept; // what failed is told next
        std::fputs(message, stdout);
        std::fflush(nullptr);
    }

    static void print_walk_error() {
        std::printf("*** StackWalk64() failed with error %d\n", static_cast<int>(os::last_error()));
    }

    // The whole wide buffer, which may hold what an earlier capture left.
    void print_wide() const {
        char narrow[2000];
        Wide piece[sizeof narrow / 4];
        constexpr std::size_t most = sizeof piece / sizeof *piece - 1;
        for (const Wide* at = b_.text; *at != 0;) {
            const std::size_t count = std::min(length_of(at), most);
            std::memcpy(piece, at, count * sizeof(Wide));
            piece[count] = 0;
            if (os::narrow(piece, narrow, sizeof narrow)) {
                std::fputs(narrow, stdout);
            }
            at += count;
        }
    }

    Buffers& b_;
    char* text_;
    std::int32_t limit_;
    Start start_;
    const void* exception_pointers_;
    std::int32_t* length_;
    std::size_t position_ = 0; // in the wide text
    std::size_t wide_converted_ = 0, narrow_converted_ = 0;
    bool outgrown_ = false;
    std::int32_t count_ = 0; // of frames
    bool walked_ = false;
    End end_ = End::fault;
};

// Everything but the capture of the calling thread's registers, which must happen in the function
// whose frame the walk loses first.
char* finish(Buffers* buffers, char* text, int limit, Start start, const void* exception_pointers,
             std::int32_t* length) {
    if (buffers == nullptr) {
        std::free(text);
        return nullptr;
    }
    Capture capture(*buffers, text, limit, start, exception_pointers, length);
    const End end = os::guarded_call(Capture::run, &capture) ? capture.end() : End::fault;
    if (end == End::fault) {
        std::free(text);
    }
    return end == End::text ? text : nullptr;
}

} // namespace

int GetCallStackDepth() {
    const char* const depth = std::getenv("KXA_CALLSTACK_DEPTH");
    return depth != nullptr ? std::atoi(depth) : 20;
}

KXM_NEVER_INLINE KXMBasCallStack::KXMBasCallStack(int depthWanted, void const* unusedContext)
    : entries{}, text(nullptr), depth(s_callStackDepth != 0 ? s_callStackDepth : depthWanted),
      length(0), pool(pool_bytes) {
    text = ObtainCurrentCallStack(depth, unusedContext);
}

KXMBasCallStack::KXMBasCallStack(char* existingText, int unused)
    : entries{}, text(existingText), depth(s_callStackDepth != 0 ? s_callStackDepth : 10),
      length(0), pool(pool_bytes) {
    ObtainCurrentCallStack2(unused, existingText);
}

KXMBasCallStack::~KXMBasCallStack() {}

void KXMBasCallStack::DeleteCStr(char* textToFree) const {
    std::free(textToFree);
}

char const* KXMBasCallStack::GetEntry(int) const {
    return text;
}

int KXMBasCallStack::GetDepthSetting() {
    return s_callStackDepth;
}

KXM_NEVER_INLINE char* KXMBasCallStack::ObtainCurrentCallStack(int limit, void const*) {
    char* const fresh = static_cast<char*>(std::calloc(text_bytes, 1));
    const BufferUse use;
    if (use.get() != nullptr) {
        os::os_context_capture(use.get()->context);
    }
    return finish(use.get(), fresh, limit, Start::calling_thread, nullptr, &length);
}

void KXMBasCallStack::ObtainCurrentCallStack2(int, char*) const {}

KXM_NEVER_INLINE char* KXMBasCallStack::ExceptionCallStack(void* exceptionPointers, int limit) {
    char* const fresh = static_cast<char*>(std::calloc(text_bytes, 1));
    const BufferUse use;
    if (use.get() != nullptr && exceptionPointers == nullptr) {
        os::os_context_capture(use.get()->context);
    }
    return finish(use.get(), fresh, limit,
                  exceptionPointers != nullptr ? Start::exception
                                               : Start::calling_thread_from_filter,
                  exceptionPointers, nullptr);
}

void KXMBasCallStack::InitSymbolEngine() {
    if (s_SymInitialized) {
        return;
    }
    InitFunctionPointers();
    constexpr std::uint32_t load_lines = 16, deferred_loads = 4;
    s_SymSetOptions(s_SymGetOptions() | load_lines | deferred_loads);
    if (s_SymInitialize(os::current_process(), nullptr, 1) != 1) {
        std::fprintf(stderr, "*** Error: SymInitialize returned status %d\n",
                     static_cast<int>(os::last_error()));
        return; // the next capture tries again
    }
    s_SymInitialized = true;
}

namespace {

constexpr std::uint32_t dll_init_failed = 1114;

// False where the name is missing; the place is null then.
template <class Function> bool bind(Function& place, HINSTANCE module, const char* name) {
    place = reinterpret_cast<Function>(os::module_symbol(module, name));
    return place != nullptr;
}

} // namespace

void KXMBasCallStack::InitFunctionPointers() {
    s_PSAPI = static_cast<HINSTANCE>(os::module_load("PSAPI.DLL"));
    if (s_PSAPI == nullptr) {
        os::set_last_error(dll_init_failed);
        return;
    }
    if (!bind(s_GetModuleBaseName, s_PSAPI, "GetModuleBaseNameW")) {
        return;
    }
    s_DBGHELP = KXMBasMemDebug::LoadDBHELP();
    if (s_DBGHELP == nullptr) {
        os::set_last_error(dll_init_failed);
        return;
    }
    // The first name that is missing leaves all that follow null.
    if (bind(s_StackWalkFunction, s_DBGHELP, "StackWalk64") &&
        bind(s_SymGetLineFromAddr, s_DBGHELP, "SymGetLineFromAddr64") &&
        bind(s_SymGetSymFromAddr, s_DBGHELP, "SymGetSymFromAddr64") &&
        bind(s_SymGetOptions, s_DBGHELP, "SymGetOptions") &&
        bind(s_SymSetOptions, s_DBGHELP, "SymSetOptions") &&
        bind(s_SymInitialize, s_DBGHELP, "SymInitialize") &&
        bind(s_SymFunctionTableAccess, s_DBGHELP, "SymFunctionTableAccess64")) {
        // The last: nothing depends on whether it is there.
        // NOLINTNEXTLINE(bugprone-unused-return-value)
        bind(s_SymGetModuleBase, s_DBGHELP, "SymGetModuleBase64");
    }
}

unsigned long KXMBasCallStack::GetModuleBaseName(void* process, HINSTANCE module,
                                                 unsigned short const* buffer, unsigned long size) {
    return s_GetModuleBaseName(process, module, const_cast<unsigned short*>(buffer),
                               static_cast<std::uint32_t>(size));
}

KXMBasCallStack::Entry::Entry(char const*) : symAddr(0), unused{} {
    symName[0] = '\0';
    symHost[0] = '\0';
}

void KXMBasCallStack::Entry::Print() const {
    Print(stdout);
}

void KXMBasCallStack::Entry::Print(FILE* file) const {
    if (!SymHostPresent()) {
        return;
    }
    std::fprintf(file, "%-26s ! ", symHost);
    if (SymNamePresent()) {
        std::fprintf(file, "%-10s", symName);
    } else {
        std::fprintf(file, "inline @ 0x%012" PRIx64, symAddr);
    }
    std::fputs("\n", file);
}
