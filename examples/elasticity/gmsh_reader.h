// Reads a mesh from a Gmsh file, MSH 2.2 or 4.1, ASCII.
#pragma once

#include "mesh.h"

#include <string_view>

namespace elasticity {

/// The tetrahedra of `file` (all of first or all of second order) with the triangles of its
/// physical surfaces "fixed" and "load". Points, curves and other surfaces are passed over. Throws
/// InputError with the line for anything else; what the mesh must further fulfil is check_mesh's
/// matter.
Mesh read_gmsh(const String& file);

/// The same for a text already in memory; `file` names it in messages.
Mesh parse_gmsh(const String& file, std::string_view text);

} // namespace elasticity
