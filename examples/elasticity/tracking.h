// The job as a client of memory tracking, which KXA_MEM_TRACK switches on: names for the files, phases for
// its steps, and the end. Without the variable all of it does nothing.
#pragma once

#include "memory.h"
#include "team.h"

namespace elasticity {

/// Names the files of this process: `output`, with its rank where there are several, and what tracking
/// adds to it. `quiet` is for the end.
void start_tracking(const String& output, bool quiet, const Team& team = alone());

/// Ends what start_tracking began, if it was called, so that the last of the files are written. No other thread may be allocating, and the
/// process records nothing from here on. Unless `quiet`, what the job holds at this moment, by its own
/// count, is told on standard output, to be compared with what the files say.
void end_tracking() noexcept;

/// A phase of the run while it lives; phases nest.
class Phase {
public:
    explicit Phase(const char* name);
    Phase(const Phase&) = delete;
    Phase& operator=(const Phase&) = delete;
    ~Phase();
};

} // namespace elasticity
