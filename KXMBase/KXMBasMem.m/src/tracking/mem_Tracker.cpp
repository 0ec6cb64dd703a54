// The recorder and the gate's decision; see mem_Tracker.h.
//
// One lock guards everything that a hook touches, so that the ids stand in the files in their order
// and without a gap. A hook allocates nothing but the identity of a thread that it meets for the
// first time, and, while recording is stopped, the table of blocks to leave out; both go past the C
// interface. The thread that fills the buffer writes it, while the others wait.
//
// Where KXTFatalError returns after a failed write, the buffer stays as it is: it is written by the
// next attempt, and events that find no room are told and dropped without taking an id.
#include "mem_Tracker.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "mem_BoundFunctions.h"
#include "mem_ThreadId.h"
#include "platform/compiler.h"
#include "platform/os.h"
#include "platform/relaxed_word.h"
#include "tracking/fatal.h"
#include "tracking/numbered_file.h"

static_assert(sizeof(mem_Transaction) == 40);
static_assert(offsetof(mem_Transaction, pointer) == 0);
static_assert(offsetof(mem_Transaction, oldPointer) == 8);
static_assert(offsetof(mem_Transaction, type) == 16);
static_assert(offsetof(mem_Transaction, transactionId) == 20);
static_assert(offsetof(mem_Transaction, size) == 24);
static_assert(offsetof(mem_Transaction, threadId) == 32);
static_assert(offsetof(mem_Transaction, stackId) == 36);

mem_Tracker::UseEnm mem_Tracker::m_useFlag = mem_Tracker::e_useUnknown;
mem_Tracker* mem_Tracker::m_instance = nullptr;
mem_Tracker* mem_Tracker::m_lockedForFork = nullptr;

namespace {

using os::relaxed_read;
using os::relaxed_write;

constexpr std::uint64_t no_size = ~std::uint64_t{0};
constexpr int no_path = mem_PtrHash::e_emptyKey; // what the tables answer for an absent key
constexpr std::size_t base_name_limit = 2037;

void fatal(const char* text, int line) {
    tracking::fatal(text, "mem_Tracker", line);
}

// Ids wrap after 2^31 events.
std::int32_t next_number(std::int32_t number) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(number) + 1U);
}

// What the message of an announced transaction calls it; null for a malloc, which moves the list on
// without a message, on purpose.
const char* announced_as(mem_Transaction::TypeEnm type) {
    switch (type) {
    case mem_Transaction::e_malloc:
        return nullptr;
    case mem_Transaction::e_free:
        return "free";
    case mem_Transaction::e_new:
        return "new";
    case mem_Transaction::e_delete:
        return "delete";
    case mem_Transaction::e_realloc:
        return "realloc";
    case mem_Transaction::e_calloc:
        return "calloc";
    case mem_Transaction::e_valloc:
        return "valloc";
    case mem_Transaction::e_release:
        return "release";
    case mem_Transaction::e_acquire:
        return "acquire";
    }
    return nullptr;
}

long long key_of(const void* p) {
    return static_cast<long long>(reinterpret_cast<std::uintptr_t>(p));
}

} // namespace

// cppcheck-suppress uninitMemberVar ; the old pointer is the hooks' to write: meant
mem_Transaction::mem_Transaction()
    : pointer(0), type(-1), transactionId(-1), size(no_size), threadId(-1), stackId(-1) {}

class mem_Tracker::Guard {
public:
    explicit Guard(mem_ThrLock& lock) : lock_(lock) { lock_.Lock(); }
    ~Guard() { lock_.Unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    mem_ThrLock& lock_;
};

// ---------------------------------------------------------------------------------------------
// The gate

mem_Tracker::UseEnm mem_Tracker::CheckForTracking() {
    const UseEnm use = relaxed_read(m_useFlag);
    if (use != e_useUnknown) {
        return use;
    }
    SetUseFlag(std::getenv("KXA_MEM_TRACK") != nullptr ? e_useOn : e_useOff);
    return relaxed_read(m_useFlag);
}

mem_Tracker::UseEnm mem_Tracker::CheckUseFlag() {
    return relaxed_read(m_useFlag);
}

void mem_Tracker::SetUseFlag(UseEnm use) {
    relaxed_write(m_useFlag, use);
}

// ---------------------------------------------------------------------------------------------
// Life

mem_Tracker& mem_Tracker::Instance() {
    mem_Tracker* const present = std::atomic_ref(m_instance).load(std::memory_order_acquire);
    return present != nullptr ? *present : *Create();
}

// One creator at a time; with tracking on, the loading thread has long been here.
KXM_NEVER_INLINE mem_Tracker* mem_Tracker::Create() {
    static std::atomic_flag busy;
    struct Turn { // given back also where a fatal error throws
        Turn() {
            while (busy.test_and_set(std::memory_order_acquire)) {
                os::spin_pause();
            }
        }
        ~Turn() { busy.clear(std::memory_order_release); }
    } const turn;
    mem_Tracker* tracker = std::atomic_ref(m_instance).load(std::memory_order_relaxed);
    if (tracker == nullptr) {
        tracker = new mem_Tracker; // null when memory is short: the caller meets it
        std::atomic_ref(m_instance).store(tracker, std::memory_order_release);
    }
    return tracker;
}

void mem_Tracker::Finalize() {
    delete m_instance;
    m_instance = nullptr;
}

void* mem_Tracker::operator new(std::size_t size) noexcept {
    return mem_malloc(size);
}

void mem_Tracker::operator delete(void* ptr) {
    mem_free(ptr);
}

mem_Tracker::mem_Tracker()
    : m_rank(-1), m_baseOutputName(), m_baseOutputNameSet(false), m_outputDirSet(false),
      m_outputDir(), m_nextStackId(0), m_currStackId(), m_lock(mem_ThrUnlocked), m_fileNumber(0),
      m_itemsInCurrBuffer(0), m_debugTrans(), m_numDebugTrans(0), m_nextDebugTrans(0),
      m_currTransactionId(0), m_numThreads(0), m_recording(true), m_wasStopped(false),
      m_numUntracked(0), m_untracked(0), m_tellingFatal(false) {
    CheckForTracking();
    m_stackHash.Add("ROOT", m_nextStackId++);
    ReadOutputDir();
    m_baseOutputNameSet = true;
    CreateBaseOutputName("unknownMemTrack");
    if (char* const ids = std::getenv("KXA_MEM_DBTRANS")) {
        ProcessDBTransStr(ids);
    }
    m_currStackId[MEM_MAX_THREADS] = -1; // the others are 0, "ROOT"
}

mem_Tracker::~mem_Tracker() {
    if (CheckUseFlag() == e_useOn) {
        m_stackHash.WriteToDisk(m_baseOutputName);
    }
    FlushBuffer();
    SetUseFlag(e_useFinished);
}

void mem_Tracker::ReadOutputDir() {
    const char* const folder = std::getenv("KXA_MEM_OUTPUTDIR");
    if (folder == nullptr) {
        return;
    }
    m_outputDirSet = true;
    const std::size_t length = std::strlen(folder);
    if (length >= e_outputDirSize) {
        SetUseFlag(e_useOff);
        std::fprintf(stderr, "ERROR: Name of output directory given for ");
        std::fprintf(stderr, "memory tracking is too long.\n");
        std::fprintf(stderr, "Name must be under %d", int{e_outputDirSize});
        std::fprintf(stderr, " characters.\n\n");
        std::fflush(stderr);
        fatal("AssertionFailed:0", __LINE__);
        return;
    }
    std::memcpy(m_outputDir, folder, length + 1);
}

void mem_Tracker::CreateBaseOutputName(const char* name) {
    const std::size_t folder_length = m_outputDirSet ? std::strlen(m_outputDir) : 0;
    const std::size_t length = std::strlen(name);
    if (length >= base_name_limit - folder_length) {
        SetUseFlag(e_useOff);
        std::fprintf(stderr, "ERROR: Output file names are too long in memory tracking code.\n");
        std::fflush(stderr);
        fatal("AssertionFailed:0", __LINE__);
        return;
    }
    const char separator = os::properties().directory_separator;
    const char* const last = std::strrchr(name, separator);
    if (!m_outputDirSet) {
        std::memmove(m_baseOutputName, name, length + 1);
    } else if (last == nullptr) {
        std::snprintf(m_baseOutputName, sizeof m_baseOutputName, "%s%c%s", m_outputDir, separator,
                      name);
    } else {
        // The folder goes in before the last element and does not take its place: a/b becomes a/d/b.
        const int front = static_cast<int>(last - name) + 1;
        std::snprintf(m_baseOutputName, sizeof m_baseOutputName, "%.*s%s%s", front, name,
                      m_outputDir, last);
    }
}

// Cuts up the environment's own text: meant.
void mem_Tracker::ProcessDBTransStr(char* text) {
    for (const char* piece = std::strtok(text, ","); piece != nullptr;
         piece = std::strtok(nullptr, ",")) {
        if (m_numDebugTrans == e_maxDebugTrans) {
            std::fprintf(stderr,
                         "memTracker  --  Too many debug transactions specified. First %d will be "
                         "used.\n",
                         int{e_maxDebugTrans});
            std::fflush(stderr);
            break;
        }
        m_debugTrans[m_numDebugTrans++] = std::atoi(piece);
    }
    std::sort(m_debugTrans, m_debugTrans + m_numDebugTrans);
}

void mem_Tracker::SetOutputName(const char* name) {
    const Guard guard(m_lock); // another thread may be writing a file
    m_baseOutputNameSet = true;
    CreateBaseOutputName(name);
}

void mem_Tracker::SetRank(int rank) {
    relaxed_write(m_rank, rank);
}

void mem_Tracker::StartTracking() {
    const Guard guard(m_lock);
    m_recording = true;
}

// Under the lock, so that no hook leaves a block out before the releases know that some are.
void mem_Tracker::StopTracking() {
    const Guard guard(m_lock);
    m_recording = false;
    m_wasStopped = true;
}

int mem_Tracker::AddThread() {
    return std::atomic_ref(m_numThreads).fetch_add(1, std::memory_order_relaxed);
}

int mem_Tracker::CurrTransactionId() const {
    return relaxed_read(const_cast<std::int32_t&>(m_currTransactionId));
}

// ---------------------------------------------------------------------------------------------
// Hooks

void mem_Tracker::Announce(mem_Transaction::TypeEnm type) {
    // Only the next id of the list is looked at: one that was passed, or that stands there twice,
    // blocks all later ones.
    if (m_nextDebugTrans >= m_numDebugTrans ||
        m_debugTrans[m_nextDebugTrans] != m_currTransactionId) {
        return;
    }
    ++m_nextDebugTrans;
    if (const char* const what = announced_as(type)) {
        std::fprintf(stderr, "mem_Tracker  --  transaction %d  --  %s\n", m_currTransactionId,
                     what);
        std::fflush(stderr);
    }
}

// pre: the lock is held.
inline void mem_Tracker::Record(mem_Transaction::TypeEnm type, void* p, void* oldP,
                                std::size_t size) {
    if (m_itemsInCurrBuffer >= BufferSize) {
        if (!m_tellingFatal) {
            Tell("AssertionFailed:m_itemsInCurrBuffer < BufferSize", __LINE__);
        }
        return;
    }
    if (m_numDebugTrans != 0) {
        Announce(type);
    }
    const int thread = mem_ThreadId::Instance().GetThreadId();
    mem_Transaction& record = m_buffer[m_itemsInCurrBuffer];
    record.pointer = reinterpret_cast<std::uintptr_t>(p);
    record.oldPointer = reinterpret_cast<std::uintptr_t>(oldP);
    record.type = type;
    record.transactionId = m_currTransactionId;
    record.size = size;
    record.threadId = thread;
    if (type != mem_Transaction::e_free) { // a free keeps what the slot held: part of the format
        record.stackId = m_currStackId[std::min(thread, MEM_MAX_THREADS)];
    }
    relaxed_write(m_currTransactionId, next_number(m_currTransactionId));
    if (++m_itemsInCurrBuffer == BufferSize) {
        FlushBuffer();
    }
}

bool mem_Tracker::IsUntracked(const void* p) const {
    return m_wasStopped && m_numUntracked != 0 && m_untracked.LookUp(key_of(p)) != no_path;
}

void mem_Tracker::AddUntracked(const void* p) {
    m_untracked.Add(key_of(p), 1);
    ++m_numUntracked;
}

void mem_Tracker::DeleteUntracked(const void* p) {
    m_untracked.Delete(key_of(p));
    --m_numUntracked;
}

inline void mem_Tracker::AllocationCall(mem_Transaction::TypeEnm type, void* p, std::size_t size) {
    const Guard guard(m_lock);
    if (m_recording) {
        Record(type, p, nullptr, size);
    } else {
        AddUntracked(p);
    }
}

// Recorded whether or not recording is stopped, so that no block looks as if it were never given
// back.
inline void mem_Tracker::ReleasingCall(mem_Transaction::TypeEnm type, void* p) {
    const Guard guard(m_lock);
    if (!IsUntracked(p)) {
        Record(type, p, nullptr, no_size);
    } else if (type == mem_Transaction::e_free || type == mem_Transaction::e_delete) {
        DeleteUntracked(p);
    }
}

void mem_Tracker::MallocCall(void* p, std::size_t size) {
    AllocationCall(mem_Transaction::e_malloc, p, size);
}

void mem_Tracker::NewCall(void* p, std::size_t size) {
    AllocationCall(mem_Transaction::e_new, p, size);
}

void mem_Tracker::VallocCall(void* p, std::size_t size) {
    AllocationCall(mem_Transaction::e_valloc, p, size);
}

void mem_Tracker::CallocCall(void* p, std::size_t count, std::size_t size) {
    AllocationCall(mem_Transaction::e_calloc, p, count * size);
}

void mem_Tracker::FreeCall(void* p) {
    ReleasingCall(mem_Transaction::e_free, p);
}

void mem_Tracker::DeleteCall(void* p) {
    ReleasingCall(mem_Transaction::e_delete, p);
}

void mem_Tracker::ReleaseCall(void* p) {
    ReleasingCall(mem_Transaction::e_release, p);
}

void mem_Tracker::AcquireCall(void* p) {
    ReleasingCall(mem_Transaction::e_acquire, p);
}

void mem_Tracker::ReallocCall(void* newP, void* oldP, std::size_t size) {
    const Guard guard(m_lock);
    if (oldP != nullptr && IsUntracked(oldP)) {
        if (newP != oldP) {
            DeleteUntracked(oldP);
            if (newP != nullptr) {
                AddUntracked(newP);
            }
        }
    } else if (m_recording) {
        Record(mem_Transaction::e_realloc, newP, oldP, size);
    } // else the event is lost, and the new address is not kept either: meant
}

// ---------------------------------------------------------------------------------------------
// Files

// A fatal error of a buffer that may be full. Whoever receives it may allocate: those events find no room
// either, and are dropped without a fatal error of their own, which would not end.
void mem_Tracker::Tell(const char* text, int line) {
    struct Telling { // over also where the fatal error throws
        explicit Telling(bool& flag) : flag_(flag), before_(flag) { flag_ = true; }
        ~Telling() { flag_ = before_; }
        bool& flag_;
        const bool before_;
    } const telling(m_tellingFatal);
    fatal(text, line);
}

void mem_Tracker::FlushBuffer() {
    if (m_itemsInCurrBuffer < 1) {
        return;
    }
    if (!m_baseOutputNameSet) {
        fatal("AssertionFailed:m_baseOutputNameSet", __LINE__);
    }
    const os::KeptError kept; // the thread allocates, and may have a failure of its own to look at
    char name[e_baseNameSize + 32];
    NameFile(name, sizeof name);
    const os::File file = os::file_create(name);
    if (file < 0) {
        std::fprintf(stderr, "\nUnable to open memory tracking file.\n");
        std::fprintf(stderr, "  FileName: %s", name);
        if (m_outputDirSet) {
            std::fprintf(stderr, "  Does the output directory %s exist?\n", m_outputDir);
        }
        std::fflush(stderr);
        Tell("AssertionFailed:0", __LINE__);
        return;
    }
    const bool written = WriteBuffer(file);
    os::file_close(file);
    if (written) {
        m_itemsInCurrBuffer = 0;
        ++m_fileNumber;
    }
}

void mem_Tracker::NameFile(char* name, std::size_t capacity) const {
    std::snprintf(name, capacity, "%s.memT%d", m_baseOutputName, m_fileNumber);
}

// A tracking::Written, which the public header does not know.
int mem_Tracker::WriteRecords(int file) const {
    return static_cast<int>(tracking::write_records(file, m_itemsInCurrBuffer, m_buffer,
                                                    static_cast<std::size_t>(m_itemsInCurrBuffer) *
                                                        sizeof(mem_Transaction)));
}

bool mem_Tracker::WriteBuffer(int file) {
    const auto result = static_cast<tracking::Written>(WriteRecords(file));
    if (result != tracking::Written::whole) {
        char name[e_baseNameSize + 32];
        NameFile(name, sizeof name);
        std::fprintf(stderr,
                     "\nUnable to write memory tracking file to its end.\n"
                     "  FileName: %s  Is there room on its disk?\n",
                     name);
        std::fflush(stderr);
    }
    switch (result) {
    case tracking::Written::count_short:
        Tell("AssertionFailed:numBytesWritten == sizeof(int)", __LINE__);
        return false;
    case tracking::Written::records_short:
        Tell("AssertionFailed:numBytesWritten == m_itemsInCurrBuffer * sizeof(mem_Transaction)",
             __LINE__);
        return false;
    case tracking::Written::whole:
        break;
    }
    return true;
}

// The events stay in the buffer, which a full file or a later save writes under the same name.
bool mem_Tracker::Save(bool wait) {
    bool locked = wait;
    if (wait) {
        m_lock.Lock();
    }
    for (int attempt = 0; !locked && attempt < 100; ++attempt) {
        locked = m_lock.TryLock() != 0;
        if (!locked) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    bool written = true;
    if (m_fileNumber > 0 || m_itemsInCurrBuffer > 0) {
        m_stackHash.WriteToDisk(m_baseOutputName);
    }
    if (m_itemsInCurrBuffer > 0) {
        char name[e_baseNameSize + 32];
        NameFile(name, sizeof name);
        const os::File file = os::file_create(name);
        written = file >= 0 && WriteRecords(file) == static_cast<int>(tracking::Written::whole);
        if (file >= 0) {
            os::file_close(file);
        }
    }
    if (locked) {
        m_lock.Unlock();
    }
    return written;
}

// ---------------------------------------------------------------------------------------------
// Fork

void mem_Tracker::LockForFork() {
    m_lockedForFork = CheckUseFlag() == e_useOn ? m_instance : nullptr;
    if (m_lockedForFork != nullptr) {
        m_lockedForFork->m_lock.Lock();
    }
}

void mem_Tracker::UnlockAfterFork(bool in_child) {
    if (in_child) { // whether locked or not
        if (m_instance != nullptr && CheckUseFlag() == e_useOn) {
            m_instance->m_lock.RenewAfterFork();
            m_instance->BeginAnewInChild();
        }
    } else if (m_lockedForFork != nullptr) {
        m_lockedForFork->m_lock.Unlock();
    }
}

// What the parent recorded is the parent's to write.
void mem_Tracker::BeginAnewInChild() {
    m_itemsInCurrBuffer = 0;
    m_fileNumber = 0;
    m_currTransactionId = 0;
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, ".%u", os::process_id());
    const std::size_t length = std::strlen(m_baseOutputName), more = std::strlen(suffix);
    if (length + more < sizeof m_baseOutputName) {
        std::memcpy(m_baseOutputName + length, suffix, more + 1);
    }
}

// ---------------------------------------------------------------------------------------------
// Phases

// False where the calling thread has no phases: tracking is not on, or the thread's number is too
// high.
bool mem_Tracker::ThreadWithPhases(int& thread) const {
    if (CheckUseFlag() != e_useOn) {
        return false;
    }
    thread = mem_ThreadId::Instance().GetThreadId();
    if (thread >= MEM_MAX_THREADS) {
        fatal("AssertionFailed:threadId < MEM_MAX_THREADS", __LINE__);
        return false;
    }
    return true;
}

// False where the table of paths is full. Nothing ends the process in here: that may wait for a thread
// which waits for the lock.
bool mem_Tracker::EnterPath(int thread, const char* path) {
    const Guard guard(m_lock); // the table of paths and the ids are all threads'
    int id = m_stackHash.LookUp(path);
    if (id == no_path) {
        if (m_stackHash.IsFull()) {
            return false;
        }
        id = m_nextStackId++;
        m_stackHash.Add(path, id);
    }
    m_currStackId[thread] = id;
    return true;
}

void mem_Tracker::EnterPhase(const char* name, int print) {
    int thread = 0;
    if (!ThreadWithPhases(thread)) {
        return;
    }
    mem_PhaseStack& stack = m_phaseStacks[thread];
    stack.EnterPhase(name);
    const char* const path = stack.CurrentStack();
    if (!EnterPath(thread, path)) {
        m_stackHash.Add(path, m_nextStackId); // ends the process
    }
    if (print != 0) {
        std::fprintf(stderr,
                     "rank %d  --  %s  --  ENTER PHASE  --  Monitored TransID = %d --  threadId = "
                     "%d\n",
                     relaxed_read(m_rank), path, CurrTransactionId(), thread);
    }
}

void mem_Tracker::ExitPhase(int print) {
    int thread = 0;
    if (!ThreadWithPhases(thread)) {
        return;
    }
    mem_PhaseStack& stack = m_phaseStacks[thread];
    if (print != 0) {
        std::fprintf(stderr,
                     "rank %d  --  %s  --  EXIT PHASE  -- Monitored TransID = %d -- threadId = "
                     "%d\n",
                     relaxed_read(m_rank), stack.CurrentStack(), CurrTransactionId(), thread);
    }
    stack.ExitPhase();
    const Guard guard(m_lock);
    m_currStackId[thread] = m_stackHash.LookUp(stack.CurrentStack()); // entered, so it is there
}

void mem_Tracker::PrintTransaction(const char* text) {
    if (CheckUseFlag() != e_useOn) {
        return;
    }
    std::fprintf(stderr, "%s  --  Monitored TransId = %d\n", text, CurrTransactionId());
}
