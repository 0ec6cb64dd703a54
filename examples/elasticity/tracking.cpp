// See tracking.h. The order at the end is the library's rule: names can be converted, this thread's number
// is given back, then the tracker goes.
#include "tracking.h"

#include "input_error.h"

#include <KXMBasMem.h>
#include <kxm_utf8_names.h>

#include <cinttypes>
#include <cstdio>

namespace elasticity {

namespace {

bool started = false, silent = false;

} // namespace

void start_tracking(const String& output, bool quiet, const Team& team) {
    if (!mem_Tracker_Interface::IsTrackingActive())
        return;
    started = true;
    silent = quiet;
    String name = output;
    if (team.ranks() > 1) // ranks that write under one name destroy each other's files
        name.append(".").append(std::string_view(Number(team.rank())));
    mem_Tracker_Interface::SetRank(team.rank());
    mem_Tracker_Interface::SetOutputName(name.c_str());
}

void end_tracking() noexcept {
    if (!started)
        return;
    started = false;
    const int events = mem_Tracker_Interface::CurrTransactionId();
    kxm::register_utf8_names();
    mem_ThreadId::Finalize();
    mem_Tracker::Finalize();
    if (!silent)
        std::printf("Tracking      %d events; the job counts %" PRIu64
                    " bytes that it still holds\n",
                    events, memory_figures().live_bytes);
}

Phase::Phase(const char* name) {
    mem_Tracker_Interface::EnterPhase(name, 0);
}

Phase::~Phase() {
    mem_Tracker_Interface::ExitPhase(0);
}

} // namespace elasticity
