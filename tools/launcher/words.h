// What kxmrun says at the end.
#pragma once

#include <string>

#include "options.h"
#include "run.h"

namespace kxmrun {

/// Refusals and recordings on standard error, then the summary where it was asked for. `figures` may be
/// null. False when the summary's file cannot be written.
bool say(const Options& options, const Figures* figures, const Outcome& outcome);

} // namespace kxmrun
