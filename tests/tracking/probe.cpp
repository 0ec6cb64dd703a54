// Started by the tests with an environment of their choice: does what the first argument names, with
// the library's objects inside it, and prints what a test compares the files with. Failed invariants
// are recorded and return.
#include "KXMBasMem.h"
#include "kxm_utf8_names.h"
#include "recording_KX0CORE.h"
#include "tracking/test_seam.h"

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Interface = mem_Tracker_Interface;

std::uint64_t number(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p);
}

void say(const char* what, std::uint64_t value) {
    std::printf("%s %" PRIu64 "\n", what, value);
}

void end_tracking() {
    kxm::register_utf8_names();
    mem_ThreadId::Finalize();
    mem_Tracker::Finalize();
}

void say_fatal_errors() {
    std::printf("fatal %d %s\n", recorded_fatal_errors(), recorded_fatal_text());
}

// The number of the next file that is opened, which grows when one stays open.
os::File next_file() {
    const char* const folder = std::getenv("KXA_MEM_OUTPUTDIR");
    const os::File file = os::file_create((std::string(folder) + "/next").c_str());
    os::file_close(file);
    return file;
}

// Every kind of event, once, and what fails.
void plain(const std::vector<std::string>&) {
    Interface::EnterPhase("first", 0);
    void* const block = mem_Malloc(100);
    say("block", number(block));
    void* const moved = mem_Realloc(block, 100000);
    say("moved", number(moved));
    volatile std::size_t too_much = SIZE_MAX / 2;
    mem_Malloc(too_much);
    mem_Realloc(moved, too_much);
    mem_Release(moved);
    mem_Acquire(moved);
    Interface::EnterPhase("second", 1);
    void* const cleared = mem_Calloc(7, 11);
    say("cleared", number(cleared));
    void* const aligned = mem_Malign(64, 4096);
    say("aligned", number(aligned));
    mem_Free(nullptr);
    static int next_at_release = 0;
    static const auto bound = mem_free;
    mem_free = [](void* released) {
        next_at_release = Interface::CurrTransactionId();
        bound(released);
    };
    mem_Free(moved);
    mem_free = bound;
    say("next at the release", static_cast<std::uint64_t>(next_at_release));
    Interface::SetRank(3);
    Interface::ExitPhase(1);
    Interface::PrintTransaction("look");
    mem_MalignFree(aligned);
    mem_Tracker& tracker = mem_Tracker::Instance();
    tracker.NewCall(aligned, 8);
    tracker.VallocCall(cleared, 9);
    tracker.DeleteCall(aligned);
    say("next", static_cast<std::uint64_t>(Interface::CurrTransactionId()));
    end_tracking();
    mem_Free(cleared); // no hook any more
    std::printf("active %d flag %d\n", Interface::IsTrackingActive(), mem_Tracker::CheckUseFlag());
    std::printf("cached %d %d %d %d\n", mem_CheckTracker(mem_Tracker::e_useUnknown),
                mem_CheckTracker(mem_Tracker::e_useOff), mem_CheckTracker(mem_Tracker::e_useOn),
                mem_CheckTracker(mem_Tracker::e_useFinished));
}

void stopped(const std::vector<std::string>&) {
    mem_Tracker& tracker = mem_Tracker::Instance();
    volatile std::size_t too_much = SIZE_MAX / 2;
    void* const recorded = mem_Malloc(10);
    void* const recorded_too = mem_Malloc(20);
    Interface::StopTracking();
    std::printf("active %d\n", Interface::IsTrackingActive());
    void* unrecorded = mem_Malloc(30);
    void* const never_freed = mem_Calloc(4, 10);
    mem_Free(recorded);                            // told
    unrecorded = mem_Realloc(unrecorded, 1000000); // moves, and stays unrecorded
    void* const lost = mem_Realloc(recorded_too, 2000000);
    tracker.NewCall(&tracker, 5);
    void* const refused = mem_Malloc(60);
    tracker.ReallocCall(nullptr, refused, too_much); // no longer known, and null is not kept for it
    mem_Free(nullptr);                               // told
    mem_Malloc(too_much);                            // but null is left out here as any other
    Interface::StartTracking();
    tracker.DeleteCall(&tracker);
    tracker.NewCall(&tracker, 5); // told again, and so is its end
    tracker.DeleteCall(&tracker);
    void* const first = mem_Realloc(nullptr, 70); // told: null is nobody's old block
    mem_Free(first);
    mem_Free(nullptr); // that of the refusal
    mem_Free(refused); // told
    mem_Release(unrecorded);
    unrecorded = mem_Realloc(unrecorded, 10);
    mem_Free(unrecorded);
    mem_Free(never_freed);
    mem_Free(lost); // an address that the record does not know
    say("lost", number(lost));
    end_tracking();
}

// COUNT events, and nothing else.
void fill(const std::vector<std::string>& arguments) {
    mem_Tracker& tracker = mem_Tracker::Instance();
    const os::File next = next_file();
    constexpr int error = 33;
    os::set_last_error(error);
    errno = error;
    for (long i = std::stol(arguments.at(0)); i > 0; --i) {
        tracker.MallocCall(&tracker, 1);
    }
    if (errno != error || os::last_error() != error) {
        std::puts("the thread's own error is lost");
    }
    end_tracking();
    say_fatal_errors();
    if (next_file() != next) {
        std::puts("a file is left open");
    }
}

// Many threads at a time, and more than 64 in all; blocks change hands. Prints what is held at the
// end by its own count.
void threads(const std::vector<std::string>& arguments) {
    const int rounds = std::stoi(arguments.at(0)), at_a_time = std::stoi(arguments.at(1));
    const int steps = std::stoi(arguments.at(2));
    std::mutex lock;
    std::map<void*, std::size_t> held;
    std::atomic<int> enters{0};
    const auto work = [&](unsigned seed) {
        // The numbers are given in the order of first contact; those from 64 on have no phases.
        const bool with_phases = mem_ThreadId::Instance().GetThreadId() < MEM_MAX_THREADS;
        std::uint32_t state = seed * 2654435761U + 1;
        const auto random = [&state](std::uint32_t bound) {
            state = state * 1664525U + 1013904223U;
            return (state >> 8) % bound;
        };
        for (int i = 0; i < steps; ++i) {
            if (with_phases && i % 50 == 0) {
                char name[32];
                std::snprintf(name, sizeof name, "step%d", i % 7);
                Interface::EnterPhase(name, 0);
                ++enters;
            }
            std::pair<void*, std::size_t> taken{nullptr, 0};
            {
                const std::lock_guard guard(lock);
                if (held.size() > 200 || (!held.empty() && random(2) != 0)) {
                    const auto place = std::next(
                        held.begin(), static_cast<std::ptrdiff_t>(random(static_cast<std::uint32_t>(
                                          held.size() < 8 ? held.size() : 8))));
                    taken = *place;
                    held.erase(place);
                }
            }
            const std::size_t size = 1 + random(3000);
            if (taken.first == nullptr) {
                taken = {mem_Malloc(size), size};
            } else if (random(3) == 0) {
                taken = {mem_Realloc(taken.first, size), size};
            } else {
                mem_Free(taken.first);
                taken.first = nullptr;
            }
            if (taken.first != nullptr) {
                const std::lock_guard guard(lock);
                held.insert(taken);
            }
            Interface::SetRank(Interface::CurrTransactionId()); // without a lock, as clients may
            if (with_phases && i % 50 == 49) {
                Interface::ExitPhase(0);
            }
        }
        mem_ThreadId::Finalize();
    };
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::thread> running;
        for (int i = 0; i < at_a_time; ++i) {
            running.emplace_back(work, static_cast<unsigned>(round * at_a_time + i));
        }
        for (std::thread& thread : running) {
            thread.join();
        }
    }
    end_tracking();
    for (const auto& [block, size] : held) {
        std::printf("held %" PRIu64 " %zu\n", number(block), size);
        mem_Free(block);
    }
    say_fatal_errors();
}

void identity(const std::vector<std::string>&) {
    const auto here = [] {
        const int first = mem_ThreadId::Instance().GetThreadId();
        return first == mem_ThreadId::Instance().GetThreadId() ? first : -1;
    };
    const auto there = [](const std::function<void()>& what) { std::thread(what).join(); };
    there([&] {
        here();
        mem_ThreadId::Finalize();
    });
    std::printf("main %d\n", here());
    int last = 0;
    for (int i = 0; i < 3000; ++i) { // the last thread gives the class's own resources back
        mem_ThreadId::Finalize();
        last = here();
    }
    std::printf("last %d\n", last);
    there([&] { std::printf("second %d\n", here()); }); // leaves its instance behind
    mem_ThreadId::Finalize();
    mem_ThreadId::Finalize();
    there([&] {
        std::printf("third %d\n", here());
        mem_ThreadId::Finalize();
    });
    std::printf("main again %d\n", here());
    end_tracking();
    const int kept = mem_ThreadId::Instance().GetThreadId();
    mem_ThreadId::Finalize(); // no longer on: nothing happens
    std::printf("kept %d\n", kept == mem_ThreadId::Instance().GetThreadId());
    say_fatal_errors();
}

void debugger(const std::vector<std::string>&) {
    mem_Debugger::Finalize();
    mem_Debugger::Initialize();
    mem_Debugger::Initialize();
    mem_Debugger::Finalize();
    mem_Debugger::Finalize();
}

// The tracker's own requests are counted at the table; a nested hook would show as an id of its own.
std::size_t requests = 0, given_back = 0;
void* (*real_malloc)(std::size_t);
void (*real_free)(void*);
void* counted_malloc(std::size_t size) {
    ++requests;
    return real_malloc(size);
}
void counted_free(void* block) {
    ++given_back;
    real_free(block);
}

void own_memory(const std::vector<std::string>&) {
    real_malloc = mem_malloc;
    mem_malloc = counted_malloc;
    real_free = mem_free;
    mem_free = counted_free;
    mem_Tracker& tracker = mem_Tracker::Instance();
    static char block[16];
    for (int i = 0; i < 300000; ++i) { // writes two files on the way
        tracker.MallocCall(block, 16);
        tracker.ReallocCall(block, block, 8);
        tracker.FreeCall(block);
    }
    say("requests while recording", requests);
    say("ids", static_cast<std::uint64_t>(Interface::CurrTransactionId()));
    Interface::StopTracking();
    for (std::intptr_t i = 1; i < 40000; ++i) {
        tracker.MallocCall(reinterpret_cast<void*>(i * 64), 8); // the table of pointers grows
    }
    Interface::StartTracking();
    std::string name(127, 'n');
    for (int depth = 0; depth < 50; ++depth) { // the texts of the paths outgrow their pool
        Interface::EnterPhase(name.c_str(), 0);
    }
    std::thread([] {
        mem_ThreadId::Instance();
        mem_ThreadId::Finalize();
    }).join();
    say("requests at all", requests);
    say("ids", static_cast<std::uint64_t>(Interface::CurrTransactionId()));
    end_tracking();
    say("given back", given_back);
    say_fatal_errors();
}

// The disk takes BYTES more. What does not fit is told, kept in the buffer, and written when there
// is room again.
void full_disk(const std::vector<std::string>& arguments) {
    mem_Tracker& tracker = mem_Tracker::Instance();
    tracking::test_seam::room = std::stoll(arguments.at(0));
    on_recorded_fatal_error([] { mem_Free(mem_Malloc(1)); }); // as whoever reports it may
    for (int i = 0; i < 2 * mem_Tracker::BufferSize; ++i) {
        tracker.MallocCall(&tracker, 1);
    }
    say_fatal_errors();
    tracker.MallocCall(&tracker, 1);
    say_fatal_errors();
    say("ids", static_cast<std::uint64_t>(Interface::CurrTransactionId()));
    if (arguments.size() > 1) {
        tracking::test_seam::room = INT64_MAX;
        end_tracking();
        say_fatal_errors();
    }
}

void vanishing_folder(const std::vector<std::string>& arguments) {
    mem_Tracker& tracker = mem_Tracker::Instance();
    const auto fill_buffer = [&tracker] {
        for (int i = 0; i < mem_Tracker::BufferSize; ++i) {
            tracker.MallocCall(&tracker, 1);
        }
    };
    fill_buffer();
    std::filesystem::rename(arguments.at(0), arguments.at(0) + ".gone");
    fill_buffer();
    say_fatal_errors();
}

void names(const std::vector<std::string>& arguments) {
    if (!arguments.empty()) {
        const int length = std::atoi(arguments[0].c_str());
        Interface::SetOutputName(length > 0
                                     ? std::string(static_cast<std::size_t>(length), 'x').c_str()
                                     : arguments[0].c_str());
    }
    std::printf("flag %d\n", mem_Tracker::CheckUseFlag());
    say_fatal_errors();
    if (recorded_fatal_errors() == 0 && arguments.size() > 1) {
        mem_Free(mem_Malloc(1));
        end_tracking();
        say_fatal_errors();
    }
}

void long_phase(const std::vector<std::string>&) {
    Interface::EnterPhase(std::string(127, 'n').c_str(), 0);
    std::puts("fine");
    std::fflush(stdout);
    Interface::EnterPhase(std::string(128, 'n').c_str(), 0);
}

void no_converter(const std::vector<std::string>& arguments) {
    if (!arguments.empty()) {
        char name[4];
        mem_ToOs::ToLocale("abc", name, sizeof name);
    }
    mem_Free(mem_Malloc(1));
    mem_Tracker::Finalize();
}

// 14 events: a malloc and a free each.
void announce(const std::vector<std::string>&) {
    mem_Tracker& tracker = mem_Tracker::Instance();
    for (int i = 0; i < 2; ++i) {
        tracker.MallocCall(&tracker, 1);
        tracker.FreeCall(&tracker);
        tracker.NewCall(&tracker, 1);
        tracker.DeleteCall(&tracker);
        tracker.ReallocCall(&tracker, &tracker, 1);
        tracker.CallocCall(&tracker, 1, 1);
        tracker.VallocCall(&tracker, 1);
        tracker.ReleaseCall(&tracker);
        tracker.AcquireCall(&tracker);
    }
}

void plain_entries(const std::vector<std::string>& arguments) {
    if (!arguments.empty()) { // with tracking off
        Interface::SetOutputName("x");
        Interface::SetRank(1);
        Interface::StartTracking();
        Interface::EnterPhase("x", 1);
        Interface::ExitPhase(1);
        Interface::PrintTransaction("x");
        Interface::StopTracking();
        mem_Free(mem_Malloc(1000));
        std::printf("active %d\n", Interface::IsTrackingActive());
        real_malloc = mem_malloc;
        mem_malloc = counted_malloc;
        mem_TrackerC_CurrTransactionId();
        say("requests", requests); // it was not there before
    }
    std::printf("enter %d\n", mem_TrackerC_EnterPhase("c"));
    const int quiet = 0, loud = 1;
    const std::string text = "numerical" + std::string(200, '#'); // no terminator behind the text
    mem_tracker_enterphase(&loud, text.data(), 9);
    mem_tracker_printtransaction(text.data(), 4);
    mem_tracker_exitphase(&quiet);
    mem_tracker_enterphase(&loud, text.data(), 0);
    mem_tracker_exitphase(&quiet);
    std::printf("exit %d\n", mem_TrackerC_ExitPhase());
    mem_tracker_enterphase(&quiet, text.data(), 118);
    mem_tracker_exitphase(&quiet);
    say_fatal_errors();
    const auto say_source = [] {
        say_fatal_errors();
        std::printf("in %s\n", recorded_fatal_source());
    };
    mem_tracker_enterphase(&quiet, text.data(), 119);
    say_source();
    mem_tracker_printtransaction(text.data(), INT_MAX);
    say_source();
    MemoryCheckerActivate();
    MemoryCheckerDeactivate();
    KXMBasMemCheckerActivate();
    KXMBasMemCheckerDeactivate();
    KXMBasMemCheckerCurrentTrans(nullptr);
    std::printf("checker %d\n", MemoryCheckerCurrentTransaction(nullptr));
    if (!arguments.empty()) {
        mem_Tracker::Finalize(); // writes nothing, and needs no converter
        std::printf("flag %d\n", mem_Tracker::CheckUseFlag());
    }
}

void late_thread(const std::vector<std::string>&) {
    for (int i = 0; i < 63; ++i) {
        mem_Tracker::Instance().AddThread();
    }
    std::thread([] {
        mem_Free(mem_Malloc(5));
        Interface::EnterPhase("none", 1);
        Interface::ExitPhase(1);
    }).join();
    say_fatal_errors();
    end_tracking();
}

void overfill(const std::vector<std::string>&) {
    const auto table = new mem_StackHash; // on the program's own heap
    for (int i = 0; i < 3992; ++i) {
        table->Add(("path" + std::to_string(i * 7919)).c_str(), i);
    }
    bool all = true;
    for (int i = 0; i < 3992; ++i) {
        all = all && table->LookUp(("path" + std::to_string(i * 7919)).c_str()) == i;
    }
    std::printf("all %d\n", all);
    std::fflush(stdout);
    table->Add("one more", 1);
    std::puts("went on");
    std::abort();
}

// The process that the table of paths ends waits for a thread that allocates.
void overfill_tracker(const std::vector<std::string>&) {
    static std::atomic<bool> ending{false};
    static std::thread thread;
    thread = std::thread([] {
        while (!ending) {
            mem_Free(mem_Malloc(1));
        }
        mem_Free(mem_Malloc(1));
        mem_ThreadId::Finalize();
    });
    std::atexit([] {
        ending = true;
        thread.join();
        std::puts("joined");
    });
    for (int i = 1; i < 4000; ++i) { // and the root
        if (i == 3992) {
            std::puts("full");
        }
        Interface::EnterPhase(std::to_string(i).c_str(), 0);
        Interface::ExitPhase(0);
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::map<std::string, void (*)(const std::vector<std::string>&)> commands = {
        {"plain", plain},
        {"stopped", stopped},
        {"fill", fill},
        {"threads", threads},
        {"identity", identity},
        {"debugger", debugger},
        {"own-memory", own_memory},
        {"full-disk", full_disk},
        {"vanishing-folder", vanishing_folder},
        {"names", names},
        {"long-phase", long_phase},
        {"no-converter", no_converter},
        {"announce", announce},
        {"plain-entries", plain_entries},
        {"late-thread", late_thread},
        {"overfill", overfill},
        {"overfill-tracker", overfill_tracker}};
    int status = 0;
    KXMBasAlloc_initialize(status);
    const auto command = commands.find(argc > 1 ? argv[1] : "");
    if (command == commands.end()) {
        return 2;
    }
    command->second({argv + 2, argv + argc});
    std::fflush(stdout);
    return 0;
}
