// What the library has for C++ alone, for the Fortran modules kxm_tracking and kxm_checks, which tell what
// each does. Fortran's linker brings no C++ runtime, and this file needs none: it is compiled without
// exceptions and run-time types, and optimised in every build, since the abstract base of the converter
// would otherwise ask for the runtime's handler of pure calls.
#include "KXMBasMemoryCheck.h"
#include "kxm_utf8_names.h"
#include "mem_ThreadId.h"
#include "mem_Tracker.h"
#include "mem_Tracker_Interface.h"

namespace {

kxm::Utf8Names names;

} // namespace

extern "C" {

bool kxm_fortran_tracking_on() {
    return mem_Tracker_Interface::IsTrackingActive();
}

void kxm_fortran_begin_tracking(const char* name, int rank) {
    mem_Tracker_Interface::SetRank(rank);
    mem_Tracker_Interface::SetOutputName(name);
}

void kxm_fortran_end_tracking() {
    if (!mem_Tracker_Interface::IsTrackingActive()) {
        return;
    }
    mem_ToOs::Register(&names);
    mem_ThreadId::Finalize(); // gives this thread's number back while the tracker is still there
    mem_Tracker::Finalize();
}

void kxm_fortran_pause_tracking() {
    mem_Tracker_Interface::StopTracking();
}

void kxm_fortran_resume_tracking() {
    mem_Tracker_Interface::StartTracking();
}

void kxm_fortran_enter_phase(const char* name, int print) {
    mem_Tracker_Interface::EnterPhase(name, print);
}

void kxm_fortran_exit_phase(int print) {
    mem_Tracker_Interface::ExitPhase(print);
}

void kxm_fortran_print_transaction(const char* text) {
    mem_Tracker_Interface::PrintTransaction(text);
}

void kxm_fortran_report_nan(const char* name, const double* values, std::int64_t count,
                            const char* file, int line) {
    KXMBasMemoryScan(name, values, static_cast<std::uint64_t>(count), KXMBasMemoryScanNan, file,
                     line);
}

void kxm_fortran_report_pattern_4(void* memory, std::int32_t pattern, std::int64_t bytes) {
    KXMBasMemoryScan(memory, pattern, static_cast<std::uint64_t>(bytes));
}

void kxm_fortran_report_pattern_8(void* memory, std::int64_t pattern, std::int64_t bytes) {
    KXMBasMemoryScan(memory, static_cast<std::uint64_t>(pattern),
                     static_cast<std::uint64_t>(bytes));
}

void kxm_fortran_fill_pattern_4(void* memory, std::int32_t pattern, std::int64_t bytes) {
    KXMBasMemoryInit(memory, pattern, static_cast<std::uint64_t>(bytes));
}

void kxm_fortran_fill_pattern_8(void* memory, std::int64_t pattern, std::int64_t bytes) {
    KXMBasMemoryInit(memory, static_cast<std::uint64_t>(pattern),
                     static_cast<std::uint64_t>(bytes));
}
}
