// See mem_Tracker_Interface.h.
#include "mem_Tracker_Interface.h"

#include "mem_Tracker.h"

bool mem_Tracker_Interface::IsTrackingActive() {
    return mem_Tracker::CheckForTracking() == mem_Tracker::e_useOn;
}

void mem_Tracker_Interface::SetOutputName(const char* name) {
    if (IsTrackingActive()) {
        mem_Tracker::Instance().SetOutputName(name);
    }
}

void mem_Tracker_Interface::SetRank(int rank) {
    if (IsTrackingActive()) {
        mem_Tracker::Instance().SetRank(rank);
    }
}

// Without the gate: kept so.
int mem_Tracker_Interface::CurrTransactionId() {
    return mem_Tracker::Instance().CurrTransactionId();
}

void mem_Tracker_Interface::EnterPhase(const char* name, int print) {
    if (IsTrackingActive()) {
        mem_Tracker::Instance().EnterPhase(name, print);
    }
}

void mem_Tracker_Interface::ExitPhase(int print) {
    if (IsTrackingActive()) {
        mem_Tracker::Instance().ExitPhase(print);
    }
}

void mem_Tracker_Interface::PrintTransaction(const char* text) {
    if (IsTrackingActive()) {
        mem_Tracker::Instance().PrintTransaction(text);
    }
}

void mem_Tracker_Interface::StartTracking() {
    if (IsTrackingActive()) {
        mem_Tracker::Instance().StartTracking();
    }
}

void mem_Tracker_Interface::StopTracking() {
    if (IsTrackingActive()) {
        mem_Tracker::Instance().StopTracking();
    }
}
