// See mem_PhaseBuffer.h.
#include "mem_PhaseBuffer.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "mem_ToOs.h"
#include "tracking/fatal.h"
#include "tracking/numbered_file.h"

static_assert(sizeof(mem_PhaseDescription) == 128);
static_assert(offsetof(mem_PhaseDescription, transactionId) == 120);
static_assert(offsetof(mem_PhaseDescription, entering) == 124);

namespace {

void fatal(const char* text, int line) {
    tracking::fatal(text, "mem_PhaseBuffer", line);
}

} // namespace

mem_PhaseDescription::mem_PhaseDescription() : name(), transactionId(-1), entering(1), padding() {}

mem_PhaseBuffer::mem_PhaseBuffer()
    : m_baseOutputName("unknownMemTrack"), m_baseOutputNameSet(true), m_currEntry(0),
      m_fileNumber(0), m_threadId(-1) {}

mem_PhaseBuffer::~mem_PhaseBuffer() {
    Flush();
}

// The record for the next event, or null where a fatal error came back and left no room.
mem_PhaseDescription* mem_PhaseBuffer::NextEntry(int threadId) {
    if (m_threadId == -1) {
        m_threadId = threadId;
    } else if (m_threadId != threadId) {
        fatal("AssertionFailed:m_threadId == threadId", __LINE__);
    }
    if (m_currEntry >= e_capacity) {
        Flush();
    }
    return m_currEntry < e_capacity ? &m_entries[m_currEntry] : nullptr;
}

int mem_PhaseBuffer::EnterPhase(const char* name, int threadId, int transactionId) {
    mem_PhaseDescription* const entry = NextEntry(threadId);
    if (std::strlen(name) >= MEM_TRACKER_PHASE_MAXSTRLEN) {
        fatal("AssertionFailed:strlen(phaseName) < MEM_TRACKER_PHASE_MAXSTRLEN", __LINE__);
    }
    if (entry != nullptr) {
        std::snprintf(entry->name, sizeof entry->name, "%s", name);
        entry->transactionId = transactionId;
        entry->entering = 1;
        ++m_currEntry;
    }
    return 0;
}

int mem_PhaseBuffer::ExitPhase(int threadId, int transactionId) {
    if (mem_PhaseDescription* const entry = NextEntry(threadId)) {
        entry->transactionId = transactionId; // the name stays whatever the slot held
        entry->entering = 0;
        ++m_currEntry;
    }
    return 0;
}

void mem_PhaseBuffer::SetOutputName(const char* name) {
    static_assert(PHASE_FILENAMESIZE - MAX_BUFF_ID_DIGITS - PhaseExtensionSize == 1005);
    const std::size_t length = std::strlen(name);
    if (length >= PHASE_FILENAMESIZE - MAX_BUFF_ID_DIGITS - PhaseExtensionSize) {
        fatal("AssertionFailed:strlen(outputName) < (PHASE_FILENAMESIZE - MAX_BUFF_ID_DIGITS - "
              "PhaseExtensionSize)",
              __LINE__);
        return;
    }
    std::memcpy(m_baseOutputName, name, length + 1);
    m_baseOutputNameSet = true;
}

void mem_PhaseBuffer::Flush() {
    if (m_currEntry < 1) {
        return;
    }
    char name[PHASE_FILENAMESIZE + 64];
    std::snprintf(name, sizeof name, "%s.phase_thr%d_%d", m_baseOutputName, m_threadId,
                  m_fileNumber);
    unsigned short buffer[1024];
    const unsigned short* const wide = mem_ToOs::ToUTF16(name, buffer, 1024);
    const os::File file = wide != nullptr ? os::file_create_wide(wide) : -1;
    if (file < 0) {
        fatal("AssertionFailed:outFd > -1", __LINE__);
        return;
    }
    const tracking::Written written = tracking::write_records(
        file, m_currEntry, m_entries,
        static_cast<std::size_t>(m_currEntry) * sizeof(mem_PhaseDescription));
    if (written == tracking::Written::count_short) {
        fatal("AssertionFailed:numBytesWritten == sizeof(int)", __LINE__);
    } else if (written == tracking::Written::records_short) {
        fatal("AssertionFailed:numBytesWritten == m_currEntry * sizeof(mem_PhaseDescription)",
              __LINE__);
    }
    os::file_close(file);
    if (written == tracking::Written::whole) {
        m_currEntry = 0;
        ++m_fileNumber;
    }
}
