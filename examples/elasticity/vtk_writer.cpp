// The XML form of VTK's unstructured grid, version 0.1. The mesh's node order is VTK's own.
#include "vtk_writer.h"

#include "assembly.h"
#include "input_error.h"

namespace elasticity {

namespace {

constexpr int digits = 9; // more than a solution of the usual tolerance holds

class Writer {
public:
    explicit Writer(OutputFile& file) : file_(file) {}

    // One data array of `count` tuples; element(i) writes the i-th.
    template <class Element>
    void array(std::string_view type, std::string_view name, int components, std::size_t count,
               Element element) {
        file_.write({"<DataArray type=\"", type, "\" Name=\"", name, "\" NumberOfComponents=\"",
                     Number(components), "\" format=\"ascii\">\n"});
        for (std::size_t i = 0; i < count; ++i) {
            element(i);
            file_.write({"\n"});
        }
        file_.write({"</DataArray>\n"});
    }
    void numbers(const double* values, int count) {
        for (int i = 0; i < count; ++i)
            file_.write({i > 0 ? " " : "", Number(values[i], digits)});
    }

private:
    OutputFile& file_;
};

void write_cells(OutputFile& file, Writer& writer, const Mesh& mesh) {
    const std::size_t count = mesh.element_count();
    const int nodes = mesh.nodes_per_element;
    file.write({"<Cells>\n"});
    writer.array("Int32", "connectivity", 1, count, [&](std::size_t i) {
        for (int k = 0; k < nodes; ++k)
            file.write({k > 0 ? " " : "", Number(mesh.element(i)[k])});
    });
    writer.array("Int64", "offsets", 1, count, [&](std::size_t i) {
        file.write({Number((i + 1) * static_cast<std::size_t>(nodes))});
    });
    const std::string_view cell_type = nodes == 10 ? "24" : "10";
    writer.array("UInt8", "types", 1, count, [&](std::size_t) { file.write({cell_type}); });
    file.write({"</Cells>\n"});
}

} // namespace

void write_vtk(OutputFile& file, const Mesh& mesh, const Vector<double>& displacement,
               const Vector<double>& stress) {
    Writer writer(file);
    const std::size_t nodes = mesh.nodes.size();
    file.write({"<?xml version=\"1.0\"?>\n"
                "<VTKFile type=\"UnstructuredGrid\" version=\"0.1\" byte_order=\"LittleEndian\">\n"
                "<UnstructuredGrid>\n<Piece NumberOfPoints=\"",
                Number(nodes), "\" NumberOfCells=\"", Number(mesh.element_count()), "\">\n"});
    file.write({"<PointData Vectors=\"displacement\" Scalars=\"von_mises\">\n"});
    writer.array("Float64", "displacement", 3, nodes,
                 [&](std::size_t i) { writer.numbers(&displacement[3 * i], 3); });
    writer.array("Float64", "stress", 6, nodes,
                 [&](std::size_t i) { writer.numbers(&stress[6 * i], 6); });
    writer.array("Float64", "von_mises", 1, nodes,
                 [&](std::size_t i) { file.write({Number(von_mises(&stress[6 * i]), digits)}); });
    file.write({"</PointData>\n<Points>\n"});
    writer.array("Float64", "points", 3, nodes, [&](std::size_t i) {
        const Point& p = mesh.nodes[i];
        const double xyz[] = {p.x, p.y, p.z};
        writer.numbers(xyz, 3);
    });
    file.write({"</Points>\n"});
    write_cells(file, writer, mesh);
    file.write({"</Piece>\n</UnstructuredGrid>\n</VTKFile>\n"});
}

} // namespace elasticity
