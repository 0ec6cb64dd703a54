// The recording of this process: its name, which is expanded here because only here process and rank are
// known, and its saving. Nothing tells for certain when a process has asked for memory for the last time, so
// the recording is saved whenever that may have been, without being ended: at the very end of exit, at _exit,
// before it becomes another program.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <new>
#include <sys/resource.h>
#include <unistd.h>

#include "KX0CORE.h"
#include "kxm_utf8_names.h"
#include "mem_Tracker.h"
#include "process.h"

namespace kxmrun {
namespace {

constexpr std::size_t longest = 1000; // what the recorder can name files by

struct Name {
    char text[longest + 64];
    std::size_t length = 0;
    bool names_process = false;

    void add(const char* piece, std::size_t bytes) {
        if (length + bytes < longest) {
            std::memcpy(text + length, piece, bytes);
            length += bytes;
            text[length] = '\0';
        }
    }
    void add_number(int number) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "%d", number);
        add(digits, std::strlen(digits));
    }
};

// %p, %r and %% of its last element.
void expand(const char* pattern, Name& name) {
    const char* const last = std::strrchr(pattern, '/');
    const std::size_t folder = last != nullptr ? static_cast<std::size_t>(last - pattern) + 1 : 0;
    name.add(pattern, folder);
    for (const char* c = pattern + folder; *c != '\0'; ++c) {
        if (*c != '%' || c[1] == '\0') {
            name.add(c, 1);
            continue;
        }
        switch (*++c) {
        case 'p':
            name.add_number(process.pid);
            name.names_process = true;
            break;
        case 'r':
            name.add_number(process.figures->rank);
            break;
        default:
            name.add(c, 1);
        }
    }
}

bool ends_in(const Name& name, const char* ending) {
    char path[longest + 96];
    std::snprintf(path, sizeof path, "%s%s", name.text, ending);
    return access(path, F_OK) == 0;
}

// A name of this process's own: the recordings of two are never mixed. A process that became another program
// has left files under its number already; an earlier run may have, too.
void make_own(Name& name) {
    if (!name.names_process) {
        if (plain_name_is_mine()) {
            // The same name as last time, perhaps, whose files were more.
            char path[longest + 96];
            std::snprintf(path, sizeof path, "%s.phaseStack", name.text);
            unlink(path);
            for (int number = 0;; ++number) {
                std::snprintf(path, sizeof path, "%s.memT%d", name.text, number);
                if (unlink(path) != 0) {
                    return;
                }
            }
        }
        name.add(".", 1);
        name.add_number(process.pid);
    }
    const std::size_t length = name.length;
    for (int number = 2; ends_in(name, ".memT0") || ends_in(name, ".phaseStack"); ++number) {
        name.length = length;
        name.add(".", 1);
        name.add_number(number);
    }
}

void note_name(const char* name) {
    std::strncpy(process.figures->record, name, sizeof process.figures->record - 1);
}

} // namespace

void begin_recording() {
    const int saved_errno = errno;
    static bool registered = false;
    if (!registered) {
        registered = true;
        // Never destroyed: the last saving comes after the destructors.
        alignas(kxm::Utf8Names) static unsigned char place[sizeof(kxm::Utf8Names)];
        mem_ToOs::Register(::new (static_cast<void*>(place)) kxm::Utf8Names);
    }
    const char* const pattern = std::getenv(record_variable);
    Name name;
    expand(pattern != nullptr ? pattern : "kxmrun.%p", name);
    make_own(name);
    mem_Tracker::Instance().SetOutputName(name.text);
    note_name(name.text);
    process.figures->events.fetch_or(recording);
    errno = saved_errno;
}

void save_recording(bool wait) {
    if (!process.tracking || getpid() != process.pid) { // a vfork's child has its parent's memory
        return;
    }
    if (mem_Tracker::CheckUseFlag() != mem_Tracker::e_useOn) {
        process.figures->events.fetch_or(ended_by_itself);
        return;
    }
    const mem_Tracker& tracker = mem_Tracker::Instance();
    const bool done = mem_Tracker::Instance().Save(wait);
    note_name(tracker.OutputName()); // the program may have given another
    process.figures->recorded.store(static_cast<std::uint32_t>(tracker.CurrTransactionId()));
    process.figures->events.fetch_or(done ? saved : not_saved);
}

void note_end(Event how) {
    if (getpid() != process.pid) {
        return;
    }
    struct rusage usage {};
    if (getrusage(RUSAGE_SELF, &usage) == 0) {
        process.figures->resident.store(static_cast<std::uint64_t>(usage.ru_maxrss) * 1024);
    }
    process.figures->events.fetch_or(how);
}

} // namespace kxmrun

using namespace kxmrun;

// The recorder's fatal error, when a file cannot be written, would end a program that has done nothing wrong: its
// recording stops instead. All others are as they were.
KXMRUN_ENTRY void KXTFatalError(const char* text, const char* first, const char* second,
                                const char* third, const char* source, int line) {
    if (own.inside && std::strcmp(source, "mem_Tracker") == 0) {
        process.tracking = false;
        process.figures->events.fetch_or(not_saved);
        return;
    }
    const auto real =
        reinterpret_cast<decltype(&::KXTFatalError)>(dlsym(RTLD_NEXT, "KXTFatalError"));
    if (real == nullptr) {
        std::abort();
    }
    real(text, first, second, third, source, line);
}
