// The tracker's entries for C and for numerical code, and the empty ones of a memory checker.
#include "mem_TrackerC.h"

#include <cstring>

#include "mem_Tracker.h"
#include "mem_Tracker_Interface.h"
#include "tracking/fatal.h"

namespace {

// A text as numerical code passes it, with a terminator.
class Text {
public:
    Text(const char* text, int length, const char* source) : buffer_() {
        if (length >= MEM_TRACKER_PHASE_MAXSTRLEN - 1) { // no sum, which may not fit
            tracking::fatal("AssertionFailed:length + 1 < MEM_TRACKER_PHASE_MAXSTRLEN", source,
                            __LINE__);
            length = MEM_TRACKER_PHASE_MAXSTRLEN - 2; // should that return
        }
        if (length > 0) {
            std::strncpy(buffer_, text, static_cast<std::size_t>(length));
        }
    }
    operator const char*() const { return buffer_; }

private:
    char buffer_[MEM_TRACKER_PHASE_MAXSTRLEN];
};

} // namespace

int mem_TrackerC_CurrTransactionId() {
    return mem_Tracker_Interface::CurrTransactionId();
}

int mem_TrackerC_EnterPhase(const char* name) {
    mem_Tracker_Interface::EnterPhase(name, 1);
    return mem_TrackerC_CurrTransactionId();
}

int mem_TrackerC_ExitPhase() {
    mem_Tracker_Interface::ExitPhase(1);
    return mem_TrackerC_CurrTransactionId();
}

void mem_tracker_enterphase(const int* print, const char* text, int length) {
    const Text name(text, length, "mem_Tracker_EnterPhase"); // told before there is a tracker
    mem_Tracker::Instance().EnterPhase(name, *print);
}

void mem_tracker_exitphase(const int* print) {
    mem_Tracker::Instance().ExitPhase(*print);
}

void mem_tracker_printtransaction(const char* text, int length) {
    const Text words(text, length, "mem_Tracker_PrintTransaction");
    mem_Tracker::Instance().PrintTransaction(words);
}

void MemoryCheckerActivate() {}

void MemoryCheckerDeactivate() {}

int MemoryCheckerCurrentTransaction(void*) {
    return 0;
}

void KXMBasMemCheckerActivate() {
    MemoryCheckerActivate();
}

void KXMBasMemCheckerDeactivate() {
    MemoryCheckerDeactivate();
}

void KXMBasMemCheckerCurrentTrans(void*) {}
