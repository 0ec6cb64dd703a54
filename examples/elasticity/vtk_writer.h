// Writes the result for viewers, as a VTK unstructured grid (.vtu) in ASCII; of several ranks each
// writes a piece, and the first one the list of them (.pvtu).
#pragma once

#include "mesh.h"
#include "output_file.h"
#include "team.h"

#include <optional>

namespace elasticity {

/// The result of a job under a name: that file, or of several ranks "NAME.pvtu" and the pieces
/// "NAME.0.vtu", "NAME.1.vtu" and so on, for a name with or without its ending.
class ResultFile {
public:
    /// Opens what this rank writes. Throws InputError, as write does.
    ResultFile(const String& name, const Team& team);

    /// Point data: displacement (three components for each node), stress (six) and von Mises stress.
    /// Elements are those with a mark in `own`, or all where it is empty.
    void write(const Mesh& mesh, const Vector<char>& own, const Vector<double>& displacement,
               const Vector<double>& stress);

private:
    String stem_;
    int ranks_;
    OutputFile file_;
    std::optional<OutputFile> list_;
};

} // namespace elasticity
