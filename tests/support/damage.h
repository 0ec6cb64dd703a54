// Proves that a walker sees what it is there for: words of a structure are damaged, a few at a time, and the
// walker is asked. Whatever its answer, they are put back.
#pragma once

#include <cstring>
#include <initializer_list>
#include <vector>

#include <gtest/gtest.h>

namespace test {

struct Word {
    void* object;
    int at; ///< in words from the object's start: fields have their places, which the library asserts
    int value;

    void exchange() {
        void* const place = static_cast<char*>(object) + 4 * at;
        int before;
        std::memcpy(&before, place, sizeof before);
        std::memcpy(place, &value, sizeof value);
        value = before;
    }
};

struct Damage {
    const char* fault; ///< in the walker's words
    std::vector<Word> words;
};

/// `walk` returns the fault that it meets, or null.
template <typename Walk> void expect_faults(std::initializer_list<Damage> table, Walk walk) {
    for (Damage damage : table) {
        for (Word& word : damage.words) {
            word.exchange();
        }
        EXPECT_STREQ(walk(), damage.fault);
        for (Word& word : damage.words) {
            word.exchange();
        }
    }
    EXPECT_STREQ(walk(), nullptr);
}

} // namespace test
