// Writes the result for viewers, as a VTK unstructured grid (.vtu) in ASCII.
#pragma once

#include "mesh.h"
#include "output_file.h"

namespace elasticity {

/// Point data: displacement (three components for each node), stress (six) and von Mises stress.
void write_vtk(OutputFile& file, const Mesh& mesh, const Vector<double>& displacement,
               const Vector<double>& stress);

} // namespace elasticity
