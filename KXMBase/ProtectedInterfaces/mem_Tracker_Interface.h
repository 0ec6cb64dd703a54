// The tracker for client classes: each operation does nothing while tracking is off, at the price of
// a call and a comparison. What they do otherwise is told at mem_Tracker's operation of that name.
// Any thread may call them.
#pragma once

#include "KXMBasMemExport.h"

class KXMBASMEM_API mem_Tracker_Interface {
public:
    static void SetOutputName(const char* name);
    static void SetRank(int rank);

    /// Id of the next transaction. The exception: with tracking off the first call creates the whole
    /// tracker, and the answer is 0.
    static int CurrTransactionId();

    static void EnterPhase(const char* name, int print);
    static void ExitPhase(int print);
    static void PrintTransaction(const char* text);
    static void StartTracking();
    static void StopTracking();

    /// Asks the gate, not the tracker: stays true while recording is stopped, false after the
    /// tracker's end.
    static bool IsTrackingActive();
};
