// A foundation library for tests: records a failed invariant and returns, so that what the library
// does then can be seen.
#include "recording_KX0CORE.h"
#include "KX0CORE.h"

#include <mutex>

namespace {

std::mutex lock;
int count = 0;
char last_text[256], last_source[256];
void (*then)() = nullptr;

void keep(char (&where)[256], const char* text) {
    std::size_t i = 0;
    for (; text != nullptr && text[i] != '\0' && i + 1 < sizeof where; ++i) {
        where[i] = text[i];
    }
    where[i] = '\0';
}

} // namespace

void KXTFatalError(const char* text, const char*, const char*, const char*, const char* source,
                   int) {
    {
        const std::lock_guard guard(lock);
        ++count;
        keep(last_text, text);
        keep(last_source, source);
    }
    if (then != nullptr) {
        then();
    }
}

void on_recorded_fatal_error(void (*what)()) {
    then = what;
}

int recorded_fatal_errors() {
    const std::lock_guard guard(lock);
    return count;
}

const char* recorded_fatal_text() {
    return last_text;
}

const char* recorded_fatal_source() {
    return last_source;
}
