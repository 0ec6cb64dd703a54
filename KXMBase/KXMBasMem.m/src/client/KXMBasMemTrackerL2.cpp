// See KXMBasMemTrackerL2.h.
#include "KXMBasMemTrackerL2.h"

#include <cstring>

template <> KXMBasMemTrackerL2* omi_SingletonBase<KXMBasMemTrackerL2>::instance = nullptr;

template class HashTable<const char*, KXMBasMemFileHashEntry>;

static_assert(sizeof(KXMBasMemFileHashEntry) == 192);

KXMBasMemFileHashEntry::KXMBasMemFileHashEntry(const char* name, long long value)
    : m_name{}, m_value(value) {
    if (name != nullptr) {
        std::memcpy(m_name, name, ::strnlen(name, sizeof m_name - 1));
    }
}

KXMBasMemTrackerL2::KXMBasMemTrackerL2() : m_files(2047) {}

KXMBasMemTrackerL2::~KXMBasMemTrackerL2() {}
