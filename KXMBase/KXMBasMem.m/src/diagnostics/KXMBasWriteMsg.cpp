// See KXMBasWriteMsg.h.
#include "KXMBasWriteMsg.h"

#include <atomic>
#include <cstdio>
#include <new>

#include "mem_ThrLock.h"

namespace {

std::atomic<kxm::Unit7Writer> s_writer{nullptr};

// The file stays open, because a Fortran program would have the unit open from the first write on; what
// was written is safe at once. A text file, so that lines end as the system's do.
void write_to_file(const char* text, std::int64_t length) {
    alignas(mem_ThrLock) static unsigned char place[sizeof(mem_ThrLock)];
    static mem_ThrLock& lock = *::new (place) mem_ThrLock(mem_ThrUnlocked); // outlives the statics
    lock.Lock();
    static std::FILE* file = nullptr;
    if (file == nullptr) {
        file = std::fopen("fort.7", "w");
    }
    if (file != nullptr) {
        std::fwrite(text, 1, static_cast<std::size_t>(length), file);
        std::fputc('\n', file);
        std::fflush(file);
    }
    lock.Unlock();
}

} // namespace

kxm::Unit7Writer kxm::set_unit7_writer(Unit7Writer writer) {
    return s_writer.exchange(writer);
}

void KXMBasWriteMsg(const char* text, const std::int64_t* length, std::size_t) {
    const kxm::Unit7Writer writer = s_writer.load();
    (writer != nullptr ? writer : write_to_file)(text, *length > 0 ? *length : 0);
}
