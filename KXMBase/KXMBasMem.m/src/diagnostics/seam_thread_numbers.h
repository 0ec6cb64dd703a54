// Where thread identity calls up into tracking/: who hands out the numbers, and whether they are
// wanted at all.
#pragma once

namespace thread_number_seam {

int next();         ///< mem_Tracker::AddThread of the one tracker, which it creates at need
bool tracking_on(); ///< takes the tracking decision, if it is not taken

} // namespace thread_number_seam
