// The analysis category that error reports name.
#include "KXMBasErrorStack.h"

namespace {

constexpr const char* category_texts[] = {
    "UNKNOWN",
    "PRE",
    "ELEMENT LOOP",
    "ORDERING",
    "ASSEMBLY",
    "SOLVER",
    "ITERATIVE SOLVER",
    "REGULARIZATION SOLVER",
    "LANCZOS SOLVER",
    "AMS SOLVER",
    "CONTACT",
    "INITIAL STRESS",
    "PACKAGE",
    "EXPLICIT",
    "SENSITIVITY ANALYSIS",
    "LINEAR DYNAMICS",
    "CFD",
};
static_assert(sizeof category_texts / sizeof *category_texts == KXMBasErrorContext::cfd + 1);

} // namespace

const char* KXMBasErrorContext::AsString() const {
    return AsString(category);
}

const char* KXMBasErrorContext::AsString(CategoryEnum value) {
    return category_texts[value];
}
