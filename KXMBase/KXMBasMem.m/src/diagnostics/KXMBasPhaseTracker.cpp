// See KXMBasPhaseTracker.h. The statics are read and written as single words and bytes, because a
// reader on another thread is allowed. The thread that counts is stored with the other things that are
// settled at load (frame/KXMBasMem_statics.cpp).
#include "KXMBasPhaseTracker.h"

#include <algorithm>
#include <cstring>

#include "platform/os.h"
#include "platform/relaxed_word.h"

char KXMBasPhaseTracker::s_markers[slots * slot_bytes] = {};
std::int32_t KXMBasPhaseTracker::s_cur = 0;
std::int32_t KXMBasPhaseTracker::s_num = 0;
std::int32_t KXMBasPhaseTracker::s_inc = 0;
std::int32_t KXMBasPhaseTracker::s_sol = 0;

using os::relaxed_read;
using os::relaxed_write;

KXMBasPhaseTracker& KXMBasPhaseTracker::operator=(KXMBasPhaseTracker const&) {
    return *this;
}

// NOLINTNEXTLINE(performance-noexcept-move-constructor): the signature is given
KXMBasPhaseTracker& KXMBasPhaseTracker::operator=(KXMBasPhaseTracker&&) {
    return *this;
}

bool KXMBasPhaseTracker::IsFirstThread() {
    return static_cast<std::int32_t>(os::thread_id()) == s_thread0;
}

void KXMBasPhaseTracker::BecomeFirstThread() {
    s_thread0 = static_cast<std::int32_t>(os::thread_id());
}

void KXMBasPhaseTracker::SaveMarker(char const* text) {
    if (!IsFirstThread()) {
        return;
    }
    const std::size_t length = std::strlen(text);
    if (length < 3) {
        return;
    }
    // Only what is at most 40 long goes on, so a length of any size may be cut to one above that.
    const int counted = static_cast<int>(std::min<std::size_t>(length, slot_bytes + 1));
    char const* const ending = text + length - 3;
    if (std::strcmp(ending, "art") == 0) {
        Push(text, counted);
    } else if (std::strcmp(ending, "End") == 0) {
        Pop(counted);
    }
}

void KXMBasPhaseTracker::Push(char const* text, int length) {
    constexpr int ending = 6; // a blank and the word Start
    if (length > slot_bytes) {
        return;
    }
    const std::int32_t current = relaxed_read(s_cur);
    char* const slot = s_markers + current;
    int i = 0;
    for (; i < length - ending && text[i] != '\0'; ++i) {
        relaxed_write(slot[i], text[i]);
    }
    relaxed_write(slot[i], '\0');
    if (current + slot_bytes == slots * slot_bytes) {
        Rewind();
        return;
    }
    relaxed_write(s_cur, current + slot_bytes);
    relaxed_write(s_num, relaxed_read(s_num) + 1);
}

void KXMBasPhaseTracker::Pop(int length) {
    const std::int32_t current = relaxed_read(s_cur);
    if (length > slot_bytes || current == 0) {
        return;
    }
    relaxed_write(s_cur, current - slot_bytes); // the text stays where it is
    relaxed_write(s_num, relaxed_read(s_num) - 1);
}

// Slot 0 may hold the name of a phase that was closed, which nobody is in.
char const* KXMBasPhaseTracker::LastMarker() {
    const std::int32_t current = relaxed_read(s_cur);
    return current == 0 ? "" : s_markers + (current - slot_bytes);
}

int KXMBasPhaseTracker::Size() {
    return relaxed_read(s_num);
}

void KXMBasPhaseTracker::Rewind() {
    relaxed_write(s_cur, 0);
    relaxed_write(s_num, 0);
    relaxed_write(s_markers[0], '\0');
}

void KXMBasPhaseTracker::IncrementStart(int const&) {
    relaxed_write(s_inc, relaxed_read(s_inc) + 1);
    Rewind();
}

void KXMBasPhaseTracker::Shift() {}

bool KXMBasPhaseTracker::Iterator::Done() {
    return position >= KXMBasPhaseTracker::Size();
}

bool KXMBasPhaseTracker::Iterator::Last() {
    const int size = KXMBasPhaseTracker::Size();
    return size == 0 || position == size - 1;
}

void KXMBasPhaseTracker::Iterator::Next() {
    ++position;
}

KXMBasPhaseTracker::Iterator& KXMBasPhaseTracker::Iterator::operator++() {
    Next();
    return *this;
}

KXMBasPhaseTracker::Iterator& KXMBasPhaseTracker::Iterator::operator++(int) {
    return ++*this;
}

int KXMBasPhaseTracker::Iterator::Current() {
    return position;
}

int KXMBasPhaseTracker::Iterator::Size() {
    return KXMBasPhaseTracker::Size();
}

void KXMBasPhaseTracker::Iterator::Position(int n) {
    position = n >= 0 ? n : std::max(KXMBasPhaseTracker::Size() + n, 0);
}

char const* KXMBasPhaseTracker::Iterator::Value() const {
    return Value(position);
}

char const* KXMBasPhaseTracker::Iterator::operator*() const {
    return Value();
}

char const* KXMBasPhaseTracker::Iterator::Value(int n) const {
    return s_markers + std::ptrdiff_t{n} * slot_bytes;
}
