// The deflection that beam theory predicts, for meshes to which it applies.
#pragma once

#include "assembly.h"

namespace elasticity {

struct KnownSolution {
    bool applies = false;
    const char* reason = ""; // why not
    double deflection = 0;   // m, of the loaded end in the direction of the load
};

/// Timoshenko's beam (bending and shear, and stretching for a load along the axis) when the mesh is
/// a straight box along a coordinate axis, held over one end and loaded over the other.
KnownSolution known_solution(const Mesh& mesh, const Material& material, const Load& load,
                             double loaded_area);

} // namespace elasticity
