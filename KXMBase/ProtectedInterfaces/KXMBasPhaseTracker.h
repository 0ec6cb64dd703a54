// The named phases that are open on the thread that loaded the library, as a stack of short texts. The
// client feeds it with markers, "Assembly Start" and "Assembly End"; nothing in the library does. The
// memory tracker's phases (mem_Tracker_Interface.h) are another thing.
//
// Nothing allocates, so that it works when memory has run out. There is no lock: SaveMarker keeps the
// stack to one thread, the other operations that change it leave that to the caller, and a reader on
// another thread may see a text half written.
#pragma once

#include <cstdint>

#include "KXMBasMemExport.h"

class KXMBASMEM_API KXMBasPhaseTracker {
public:
    class Iterator;

    KXMBasPhaseTracker() {}
    KXMBasPhaseTracker(KXMBasPhaseTracker const&) {}
    // There is nothing to assign.
    KXMBasPhaseTracker& operator=(KXMBasPhaseTracker const& other);
    // NOLINTNEXTLINE(performance-noexcept-move-constructor): the signature is given
    KXMBasPhaseTracker& operator=(KXMBasPhaseTracker&& other);

    /// Opens the phase of a marker that ends in "art", of at most 40 characters with the six of
    /// " Start", and closes the top phase at one that ends in "End", whatever its name. Only the ends
    /// are looked at: "Restart" opens "R", and a text of 3 to 5 characters a phase without a name. All others, and
    /// those of other threads than the one that loaded the library, are ignored.
    static void SaveMarker(char const* text);

    /// Opens a phase named by the first `length` - 6 characters of `text`; nothing when `length` is
    /// above 40. The twentieth open phase empties the stack instead of standing on it: meant.
    static void Push(char const* text, int length);
    /// Closes the top phase, if there is one and `length` is at most 40.
    static void Pop(int length);

    static char const* LastMarker(); ///< name of the top phase; the empty text when none is open
    static int Size();               ///< number of open phases
    static void Rewind();            ///< closes all
    static void IncrementStart(int const& unused); ///< a solver's increment begins: closes all
    static void Shift();                           ///< does nothing

    // Around a fork, for the library: the thread that loaded it has another number in the child.
    static bool IsFirstThread();
    static void BecomeFirstThread();

private:
    enum { slot_bytes = 40, slots = 20 };

    static char s_markers[slots * slot_bytes]; // the bottom of the stack is slot 0
    static std::int32_t s_cur;                 // where the next slot begins: slot_bytes * s_num
    static std::int32_t s_num;                 // slots in use
    static std::int32_t s_inc;                 // increments begun; nothing reads it
    static std::int32_t s_sol;                 // not used
    static std::int32_t s_thread0;             // the system's number of the loading thread
};

/// A position in the stack, from the bottom at 0. It reads the stack at each call, so that it may be
/// used across changes.
class KXMBASMEM_API KXMBasPhaseTracker::Iterator {
public:
    Iterator() : position(0) {}

    bool Done(); ///< at or past the end
    bool Last(); ///< on the top phase, or there is none
    void Next();
    Iterator& operator++();
    Iterator& operator++(int); ///< after the step, like the other: meant
    int Current();             ///< the position
    int Size();                ///< number of open phases

    /// Goes to `n`; a negative one counts from the top, which is -1, and stops at 0.
    void Position(int n);

    // Name of the phase there. Neither is checked: pre: a slot of the twenty. A slot that no phase
    // is open in holds what was there last.
    char const* Value() const;
    char const* operator*() const;
    char const* Value(int n) const;

private:
    std::int32_t position;
};
