// Gives the figures of the test instead of the system's, until the end of a scope.
#pragma once

#include "diagnostics/test_seam.h"

namespace test {

struct PlayedSystem {
    diagnostics::test_seam::Provider before = diagnostics::test_seam::provider;
    ~PlayedSystem() { diagnostics::test_seam::provider = before; }
    diagnostics::test_seam::Provider* operator->() { return &diagnostics::test_seam::provider; }
};

} // namespace test
