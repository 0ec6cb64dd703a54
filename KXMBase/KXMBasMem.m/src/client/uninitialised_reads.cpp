// See the header. A block is read through functions that no checker instruments: it may be a block of
// anybody's, smaller than the words that are looked at, and its memory may never have been written.
#include "client/uninitialised_reads.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/os.h"

namespace uninitialised_reads {

os::relaxed_word<std::int32_t> umrPrintLimit = unread;

namespace {

using os::relaxed_word;

relaxed_word<std::int32_t> umrPrintAllocSize = unread;
relaxed_word<std::int32_t> umrWatchAllocId = unread;
relaxed_word<std::uint32_t> umrAllocCounter = 0U; // the number of the next block
relaxed_word<void*> umrWatchedBlock = nullptr;    // for whoever debugs; nothing here reads it
relaxed_word<std::FILE*> umrReportFile = nullptr; // for the life of the process

constexpr unsigned char fill_byte = 0xFE;
constexpr std::uint32_t fill = 0xFEFEFEFE;
constexpr std::uint32_t neutral = 0x80000000; // neither filled nor written
constexpr std::int32_t none = 0x7FFFFFFF;

// Of a block, in words.
constexpr std::int32_t mark_at = 5, size_at = 6, number_at = 10, payload_at = 12;
constexpr std::size_t word = 4;

std::int32_t read_variable(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? std::atoi(value) : 0;
}

std::int32_t read_once(relaxed_word<std::int32_t>& variable, const char* name) {
    if (variable == unread) {
        variable = read_variable(name);
    }
    return variable;
}

std::int32_t read_print_limit() {
    return read_variable("KXA_UMR_PRINT");
}

void decide() {
    const std::int32_t limit = read_print_limit();
    if (limit > 0) {
        umrReportFile.publish(std::fopen("./KXMBas_UMR_Print.txt", "a"));
    }
    umrPrintLimit = limit;
}

void print_line(const char* line) {
    std::fputs(line, stderr);
    // Where the file could not be opened there is only the line above.
    if (std::FILE* const file = umrReportFile.seen()) {
        std::fputs(line, file);
    }
}

KXM_NO_SANITIZE_INLINE std::uint32_t word_of(const void* block, std::int32_t index) {
    struct KXM_MAY_ALIAS Word {
        std::uint32_t value;
    };
    return static_cast<const volatile Word*>(block)[index].value;
}

KXM_NO_SANITIZE_INLINE std::int32_t number_of(const void* block, std::int32_t index) {
    return static_cast<std::int32_t>(word_of(block, index));
}

KXM_NO_SANITIZE void look(void* block) {
    if (word_of(block, mark_at) != fill) {
        return;
    }
    const std::int32_t size = number_of(block, size_at), wanted = umrPrintAllocSize;
    if (wanted != 0 && wanted != size) {
        return;
    }
    const std::int32_t id = number_of(block, number_at);
    const bool watched = id == umrWatchAllocId;
    const char* const tag = watched ? "(watched)" : " ";
    const std::int32_t limit = size / static_cast<std::int32_t>(word);

    std::int32_t first = none, count = 0;
    bool first_line = true;
    for (std::int32_t i = payload_at; i < limit; ++i) {
        const std::uint32_t value = word_of(block, i);
        if (value == fill) {
            first = std::min(first, i);
        }
        if (value == fill || value == neutral || i <= first) {
            continue;
        }
        char line[256];
        if (first_line) {
            std::snprintf(line, sizeof line,
                          " Allocation  %d : Size= %d, First_uninitializeded=  %d  , "
                          "Next_initialized=  %d  , Diff= %d %s\n",
                          id, size, first, i, i - first, tag);
        } else {
            std::snprintf(line, sizeof line,
                          "                           Next_uninitializeded=  %d  , "
                          "Follow_initialized=  %d  , Diff= %d \n",
                          first, i, i - first);
        }
        print_line(line);
        if (!watched && ++count >= umrPrintLimit) {
            return;
        }
        first = none;
        first_line = false;
    }
}

} // namespace

std::size_t room_for_number(std::size_t size) {
    constexpr std::size_t least = (number_at + 1) * word;
    // Asked by itself while nothing is decided, since a refused request decides nothing.
    const std::int32_t decided = umrPrintLimit;
    const std::int32_t limit = decided == unread ? read_print_limit() : decided;
    return limit > 0 ? std::max(size, least) : size;
}

void prepare(void* block, std::size_t size) {
    if (umrPrintLimit == unread) {
        decide();
    }
    if (umrPrintLimit <= 0) {
        return;
    }
    std::memset(block, fill_byte, size);
    // Whatever the size: a smaller block is numbered behind its end.
    const std::uint32_t id = umrAllocCounter;
    std::memcpy(static_cast<char*>(block) + number_at * word, &id, sizeof id);
    if (static_cast<std::int32_t>(id) == read_once(umrWatchAllocId, "KXA_UMR_WATCH_ALLOC_ID")) {
        umrWatchedBlock = block;
    }
    umrAllocCounter = id + 1;
}

void scan(void* block) {
    read_once(umrPrintAllocSize, "KXA_UMR_PRINT_ALLOC_SIZE");
    constexpr std::uintptr_t page = 4096, mark_end = (mark_at + 1) * word;
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    const bool mark_is_mapped = address % page <= page - mark_end;
    if (block == nullptr || (mark_is_mapped && word_of(block, mark_at) != fill)) {
        return;
    }
    // What the owner wrote as a size, or a stranger left behind, may lead out of the memory there is.
    os::guarded_call(look, block);
}

} // namespace uninitialised_reads
