// A foundation library for tests: records a failed invariant and returns, so that what the library
// does then can be seen.
#include "recording_KX0CORE.h"
#include "KX0CORE.h"

#include <mutex>

namespace {

std::mutex lock;
int count = 0;
char last_text[256];

void keep(const char* text) {
    std::size_t i = 0;
    for (; text != nullptr && text[i] != '\0' && i + 1 < sizeof last_text; ++i) {
        last_text[i] = text[i];
    }
    last_text[i] = '\0';
}

} // namespace

void KXTFatalError(const char* text, const char*, const char*, const char*, const char*, int) {
    const std::lock_guard guard(lock);
    ++count;
    keep(text);
}

int recorded_fatal_errors() {
    const std::lock_guard guard(lock);
    return count;
}

const char* recorded_fatal_text() {
    return last_text;
}
