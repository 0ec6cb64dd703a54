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

void write_cells(OutputFile& file, Writer& writer, const Mesh& mesh,
                 const Vector<std::size_t>& elements) {
    const std::size_t count = elements.size();
    const int nodes = mesh.nodes_per_element;
    file.write({"<Cells>\n"});
    writer.array("Int32", "connectivity", 1, count, [&](std::size_t i) {
        for (int k = 0; k < nodes; ++k)
            file.write({k > 0 ? " " : "", Number(mesh.element(elements[i])[k])});
    });
    writer.array("Int64", "offsets", 1, count, [&](std::size_t i) {
        file.write({Number((i + 1) * static_cast<std::size_t>(nodes))});
    });
    const std::string_view cell_type = nodes == 10 ? "24" : "10";
    writer.array("UInt8", "types", 1, count, [&](std::size_t) { file.write({cell_type}); });
    file.write({"</Cells>\n"});
}

void write_vtk(OutputFile& file, const Mesh& mesh, const Vector<std::size_t>& elements,
               const Vector<double>& displacement, const Vector<double>& stress) {
    Writer writer(file);
    const std::size_t nodes = mesh.nodes.size();
    file.write({("<?xml version=\"1.0\"?>\n"
                 "<VTKFile type=\"UnstructuredGrid\" version=\"0.1\" byte_order=\"LittleEndian\">\n"
                 "<UnstructuredGrid>\n<Piece NumberOfPoints=\""),
                Number(nodes), "\" NumberOfCells=\"", Number(elements.size()), "\">\n"});
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
    write_cells(file, writer, mesh, elements);
    file.write({"</Piece>\n</UnstructuredGrid>\n</VTKFile>\n"});
}

// The name of a piece in the list is that of a file beside it.
void write_list(OutputFile& file, std::string_view stem, int ranks) {
    const std::size_t folder = stem.find_last_of("/\\");
    if (folder != std::string_view::npos)
        stem.remove_prefix(folder + 1);
    file.write({"<?xml version=\"1.0\"?>\n"
                "<VTKFile type=\"PUnstructuredGrid\" version=\"0.1\" byte_order=\"LittleEndian\">\n"
                "<PUnstructuredGrid GhostLevel=\"0\">\n"
                "<PPointData Vectors=\"displacement\" Scalars=\"von_mises\">\n"
                "<PDataArray type=\"Float64\" Name=\"displacement\" NumberOfComponents=\"3\"/>\n"
                "<PDataArray type=\"Float64\" Name=\"stress\" NumberOfComponents=\"6\"/>\n"
                "<PDataArray type=\"Float64\" Name=\"von_mises\" NumberOfComponents=\"1\"/>\n"
                "</PPointData>\n<PPoints>\n"
                "<PDataArray type=\"Float64\" Name=\"points\" NumberOfComponents=\"3\"/>\n"
                "</PPoints>\n"});
    for (int rank = 0; rank < ranks; ++rank)
        file.write({"<Piece Source=\"", stem, ".", Number(rank), ".vtu\"/>\n"});
    file.write({"</PUnstructuredGrid>\n</VTKFile>\n"});
}

String without_ending(const String& name) {
    for (const std::string_view ending : {".pvtu", ".vtu"})
        if (name.size() > ending.size() && name.ends_with(ending))
            return name.substr(0, name.size() - ending.size());
    return name;
}

String piece_name(const String& stem, int rank) {
    String name = stem + ".";
    name += std::string_view(Number(rank));
    return name + ".vtu";
}

} // namespace

ResultFile::ResultFile(const String& name, const Team& team)
    : stem_(without_ending(name)), ranks_(team.ranks()),
      file_(ranks_ == 1 ? name : piece_name(stem_, team.rank())) {
    if (ranks_ > 1 && team.rank() == 0)
        list_.emplace(stem_ + ".pvtu");
}

void ResultFile::write(const Mesh& mesh, const Vector<char>& own,
                       const Vector<double>& displacement, const Vector<double>& stress) {
    Vector<std::size_t> elements;
    for (std::size_t e = 0; e < mesh.element_count(); ++e)
        if (own.empty() || own[e])
            elements.push_back(e);
    write_vtk(file_, mesh, elements, displacement, stress);
    file_.commit();
    if (list_) {
        write_list(*list_, stem_, ranks_);
        list_->commit();
    }
}

} // namespace elasticity
