// Stands for the page in a program that was built without what it needs.
#include "page_template.h"

namespace memtrack {

const PageTemplate page_template = {};

} // namespace memtrack
