// A fuzzer makes histories of the recorder: events, phases, stops and a disk that fills up. Each ends in files
// that the reading layer of memtrack reads, and what it finds is what a model of the recorder expects.
#include "history.h"
#include "history_reader.h"
#include "kxm_utf8_names.h"
#include "recording_KX0CORE.h"
#include "tracking/test_seam.h"
#include "tracking_files.h"

#include "KXMBasMem.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>

namespace kxm {

// A process has one tracker in its life; a fuzzer's has one an input.
struct TrackerRevival {
    static void revive() { mem_Tracker::m_useFlag = mem_Tracker::e_useOn; }
};

} // namespace kxm

namespace {

using memtrack::Transaction;
using memtrack::Type;

void expect(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "recorder: %s\n", what);
        std::abort();
    }
}

class History {
public:
    History(const std::uint8_t* data, std::size_t size) : reader_(data, size) {}

    void run(const std::string& folder) {
        kxm::TrackerRevival::revive();
        tracker_ = &mem_Tracker::Instance();
        while (!reader_.done()) {
            step();
        }
        const bool was_full = full();
        tracking::test_seam::room = INT64_MAX; // what did not fit is written at the end
        mem_Tracker::Finalize();
        expect((recorded_fatal_errors() != reports_) == failed_,
               "fatal errors without a cause, or none");
        expect(!was_full || failed_, "a full buffer stayed");
        compare(folder + "unknownMemTrack");
    }

private:
    bool full() const { return in_buffer_ == memtrack::full_file; }

    void* some_address() {
        const std::size_t number = reader_.byte();
        return reinterpret_cast<void*>(number % 8 == 0 ? reader_.word() << 24 : number * 16);
    }
    std::size_t some_size() {
        const std::size_t number = reader_.byte();
        return number < 250 ? number * number : SIZE_MAX - number;
    }

    void record(Type type, const void* address, const void* old, std::size_t size) {
        if (full()) { // the last write failed: what comes then is lost, with a fatal error each
            failed_ = true;
            return;
        }
        Transaction event;
        event.pointer = reinterpret_cast<std::uintptr_t>(address);
        event.old_pointer = reinterpret_cast<std::uintptr_t>(old);
        event.type = type;
        event.id = static_cast<std::int32_t>(events_.size());
        event.size = size;
        event.stack = stack_;
        events_.push_back(event);
        if (++in_buffer_ == memtrack::full_file) {
            constexpr std::int64_t bytes = 4 + std::int64_t{memtrack::full_file} * 40;
            if (room_ < bytes) {
                failed_ = true;
            } else {
                in_buffer_ = 0;
            }
            room_ -= std::min(room_, bytes);
        }
    }

    bool left_out(const void* address) const {
        return was_stopped_ && untracked_count_ != 0 && untracked_.contains(address);
    }

    void allocation(Type type, void* address, std::size_t size) {
        if (recording_) {
            record(type, address, nullptr, size);
        } else {
            untracked_.insert(address);
            ++untracked_count_;
        }
    }

    void release(Type type, void* address) {
        if (!left_out(address)) {
            record(type, address, nullptr, memtrack::no_size);
        } else if (type == Type::free_ || type == Type::delete_) {
            untracked_.erase(address);
            --untracked_count_;
        }
    }

    void resize(void* fresh, void* old, std::size_t size) {
        if (old != nullptr && left_out(old)) {
            if (fresh != old) {
                untracked_.erase(old);
                --untracked_count_;
                if (fresh != nullptr) {
                    untracked_.insert(fresh);
                    ++untracked_count_;
                }
            }
        } else if (recording_) {
            record(Type::realloc_, fresh, old, size);
        }
    }

    void set_stack() {
        std::string path = "ROOT";
        for (const std::string& name : phases_) {
            path += "->" + name;
        }
        stack_ = stacks_.try_emplace(path, static_cast<std::int32_t>(stacks_.size())).first->second;
    }

    void step() {
        void* const address = some_address();
        switch (reader_.byte() % 16) {
        case 0: {
            const std::size_t size = some_size();
            tracker_->NewCall(address, size);
            return allocation(Type::new_, address, size);
        }
        case 1: {
            const std::size_t size = some_size();
            tracker_->VallocCall(address, size);
            return allocation(Type::valloc_, address, size);
        }
        case 2: {
            const std::size_t count = some_size(), size = some_size();
            tracker_->CallocCall(address, count, size);
            return allocation(Type::calloc_, address, count * size);
        }
        case 3:
        case 4:
            tracker_->FreeCall(address);
            return release(Type::free_, address);
        case 5:
            tracker_->DeleteCall(address);
            return release(Type::delete_, address);
        case 6:
            tracker_->ReleaseCall(address);
            return release(Type::release, address);
        case 7:
            tracker_->AcquireCall(address);
            return release(Type::acquire, address);
        case 8:
        case 9: {
            void* const fresh = some_address();
            const std::size_t size = some_size();
            tracker_->ReallocCall(fresh, address, size);
            return resize(fresh, address, size);
        }
        case 10:
            return enter_or_leave();
        case 11:
            recording_ = !recording_;
            if (recording_) {
                tracker_->StartTracking();
            } else {
                tracker_->StopTracking();
                was_stopped_ = true;
            }
            return;
        case 12: // as many as reach the end of a buffer in a short history
            for (std::size_t left = reader_.byte() * 1024; left > 0; --left) {
                tracker_->MallocCall(address, left);
                allocation(Type::malloc_, address, left);
            }
            return;
        case 13:
            if (reader_.byte() % 4 == 0 && !failed_) {
                room_ = static_cast<std::int64_t>(reader_.word()) * 128;
                tracking::test_seam::room = room_;
            }
            return;
        default: {
            const std::size_t size = some_size();
            tracker_->MallocCall(address, size);
            return allocation(Type::malloc_, address, size);
        }
        }
    }

    void enter_or_leave() {
        const std::size_t kind = reader_.byte();
        if (kind % 2 == 0 && phases_.size() < 60) {
            std::string name(kind == 254 ? 127 : kind % 8,
                             static_cast<char>('!' + reader_.byte() % 90));
            tracker_->EnterPhase(name.c_str(), 0);
            phases_.push_back(name);
        } else if (!phases_.empty()) {
            tracker_->ExitPhase(0);
            phases_.pop_back();
        }
        set_stack();
    }

    void compare(const std::string& base) {
        memtrack::Problems problems;
        memtrack::EventReader reader(base, problems);
        std::size_t at = 0;
        for (Transaction found; reader.next(found); ++at) {
            expect(at < events_.size(), "more events than there were");
            const Transaction& event = events_[at];
            expect(found.pointer == event.pointer && found.old_pointer == event.old_pointer &&
                       found.type == event.type && found.id == event.id &&
                       found.size == event.size && found.thread == 0 &&
                       (found.type == Type::free_ || found.stack == event.stack),
                   "an event differs");
        }
        expect(at == events_.size(), "events are missing");
        const memtrack::PhaseTable table(base, problems);
        expect(table.size() == stacks_.size(), "phases are missing");
        for (const auto& [path, id] : stacks_) {
            expect(table.path(id) == path, "a phase's path differs");
        }
        // Without an event there is no file, which the reader rightly calls a problem.
        expect(problems.empty() || events_.empty(), "the reader finds fault");
    }

    test::HistoryReader reader_;
    mem_Tracker* tracker_ = nullptr;
    std::vector<Transaction> events_{};
    std::map<std::string, std::int32_t> stacks_{{"ROOT", 0}};
    std::vector<std::string> phases_{};
    std::set<const void*> untracked_{};
    std::int64_t room_ = INT64_MAX;
    std::int32_t stack_ = 0, in_buffer_ = 0, untracked_count_ = 0;
    bool recording_ = true, was_stopped_ = false, failed_ = false;
    int reports_ = recorded_fatal_errors();
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string folder = [] {
        std::string made =
            (std::filesystem::temp_directory_path() / "kxm_fuzz_recorder_XXXXXX").string();
        expect(mkdtemp(made.data()) != nullptr, "no folder for the files");
        setenv("KXA_MEM_OUTPUTDIR", made.c_str(), 1); // before the first tracker is made
        int status = 0;
        KXMBasMem_initialize(status);
        kxm::register_utf8_names();
        mem_ThreadId::Instance();
        return made + "/";
    }();
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
        std::filesystem::remove(file);
    }
    History(data, size).run(folder);
    return 0;
}
