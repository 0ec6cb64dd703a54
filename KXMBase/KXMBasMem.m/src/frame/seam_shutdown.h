// Where the frame's stop calls up into objects/: the report of the singleton registry, the last
// thing that the memory layer does.
#pragma once

namespace registry_seam {

void finalize();

} // namespace registry_seam
