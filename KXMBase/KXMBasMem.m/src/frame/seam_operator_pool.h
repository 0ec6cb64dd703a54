// Where the frame's start calls up into client/: the process-wide pool begins to count.
#pragma once

namespace operator_pool_seam {

void activate();

} // namespace operator_pool_seam
