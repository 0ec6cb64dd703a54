// Stands for the singleton registry until it is built: there is no singleton yet, so its report at
// the library's stop has nothing to say.
#include "frame/seam_shutdown.h"

namespace registry_seam {

void finalize() {}

} // namespace registry_seam
