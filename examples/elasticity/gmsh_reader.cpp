// Reader of Gmsh's ASCII mesh files.
//
// Both versions are read in one pass into raw form: elements with the node numbers of the file, and
// triangles with the number that leads to their physical groups (the group itself in 2.2, the
// geometric surface in 4.1). Since a file may have its sections in any order, numbers are resolved
// only when all of it has been read.
#include "gmsh_reader.h"

#include "text_scanner.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace elasticity {

namespace {

struct ElementType {
    int number;
    int dimension;
    int nodes;
    std::string_view name;
};

// The types that a mesh for this job may meet; the nodes of others are not known.
constexpr ElementType element_types[] = {
    {1, 1, 2, "line"},
    {2, 2, 3, "triangle"},
    {3, 2, 4, "quadrangle"},
    {4, 3, 4, "tetrahedron"},
    {5, 3, 8, "hexahedron"},
    {6, 3, 6, "prism"},
    {7, 3, 5, "pyramid"},
    {8, 1, 3, "line"},
    {9, 2, 6, "triangle"},
    {10, 2, 9, "quadrangle"},
    {11, 3, 10, "tetrahedron"},
    {12, 3, 27, "hexahedron"},
    {13, 3, 18, "prism"},
    {14, 3, 14, "pyramid"},
    {15, 0, 1, "point"},
    {16, 2, 8, "quadrangle"},
    {17, 3, 20, "hexahedron"},
    {18, 3, 15, "prism"},
    {19, 3, 13, "pyramid"},
    {21, 2, 10, "third-order triangle"},
    {29, 3, 20, "third-order tetrahedron"},
};

enum Group : unsigned { in_fixed = 1, in_load = 2 };

struct RawTriangle {
    std::array<std::int64_t, 6> nodes;
    std::int64_t owner;
    std::int32_t line;
    int node_count;
};

class Reader {
public:
    Reader(const String& file, std::string_view text) : scan_(file, text) { mesh_.file = file; }
    Mesh read();

private:
    void read_format();
    void read_section(std::string_view name);
    void read_names();
    void read_entities();
    void read_nodes_2();
    void read_nodes_4();
    void read_elements_2();
    void read_elements_4();
    void read_point(std::int64_t tag, std::int32_t tag_line);
    void read_element(const ElementType& type, std::int64_t owner);
    const ElementType& element_type(std::int64_t number) const;
    void skip(std::string_view end);
    void resolve();
    std::int32_t resolve(std::int64_t tag, std::int32_t line) const;
    unsigned groups_of(std::int64_t physical) const;

    TextScanner scan_;
    Mesh mesh_;
    bool version_4_ = false;
    bool have_nodes_ = false;
    bool have_elements_ = false;
    HashMap<std::int64_t, std::int32_t> node_index_;
    Vector<std::pair<std::int64_t, unsigned>> named_;
    HashMap<std::int64_t, Vector<std::int64_t>> physicals_of_surface_;
    Vector<std::int64_t> element_nodes_;
    Vector<RawTriangle> triangles_;
};

Mesh Reader::read() {
    if (!scan_.next_line() || scan_.field() != "$MeshFormat")
        scan_.fail({"not a Gmsh mesh: it does not begin with $MeshFormat"});
    read_format();
    while (scan_.next_line()) {
        const std::string_view name = scan_.field();
        if (name.size() < 2 || name[0] != '$' || name.starts_with("$End"))
            scan_.fail({"a section such as $Nodes should begin here"});
        read_section(name);
    }
    if (!have_nodes_)
        scan_.fail({"the file has no $Nodes"});
    if (!have_elements_)
        scan_.fail({"the file has no $Elements"});
    if (mesh_.element_lines.empty())
        scan_.fail({"the file has no tetrahedra"});
    resolve();
    return std::move(mesh_);
}

void Reader::read_format() {
    scan_.next_line_of("$MeshFormat");
    const std::string_view version = scan_.field();
    version_4_ = version == "4.1";
    if (!version_4_ && version != "2.2")
        scan_.fail({"mesh format ", version.substr(0, 20), " is not read, only 2.2 and 4.1"});
    if (scan_.integer("the file type") != 0)
        scan_.fail({"a binary mesh is not read; save it as ASCII"});
    scan_.next_line_of("$MeshFormat");
    if (scan_.field() != "$EndMeshFormat")
        scan_.fail({"$EndMeshFormat should stand here"});
}

void Reader::read_section(std::string_view name) {
    const auto once = [&](bool& have) {
        if (std::exchange(have, true))
            scan_.fail({name, " stands in the file twice"});
    };
    String end("$End");
    end += name.substr(1);
    if (name == "$PhysicalNames") {
        read_names();
    } else if (name == "$Entities" && version_4_) {
        read_entities();
    } else if (name == "$Nodes") {
        once(have_nodes_);
        version_4_ ? read_nodes_4() : read_nodes_2();
    } else if (name == "$Elements") {
        once(have_elements_);
        version_4_ ? read_elements_4() : read_elements_2();
    } else if (name == "$PartitionedEntities") {
        scan_.fail({"a partitioned mesh is not read; save it as one part"});
    } else {
        skip(end);
        return;
    }
    scan_.next_line_of(name);
    if (scan_.field() != end)
        scan_.fail({end, " should stand here"});
}

void Reader::skip(std::string_view end) {
    do
        scan_.next_line_of(end);
    while (scan_.field() != end);
}

void Reader::read_names() {
    scan_.next_line_of("$PhysicalNames");
    const std::int64_t count = scan_.count("the number of names", 4);
    for (std::int64_t i = 0; i < count; ++i) {
        scan_.next_line_of("$PhysicalNames");
        const std::int64_t dimension = scan_.integer("the dimension of a group");
        const std::int64_t tag = scan_.integer("the number of a group");
        std::string_view name = scan_.remainder();
        const std::size_t open = name.find('"');
        const std::size_t close = name.rfind('"');
        if (open == std::string_view::npos || close == open)
            scan_.fail({"a name in quotes should stand here"});
        name = name.substr(open + 1, close - open - 1);
        const unsigned group = name == "fixed" ? in_fixed : name == "load" ? in_load : 0U;
        if (group == 0)
            continue;
        if (dimension != 2)
            scan_.fail({"group \"", name, "\" must be a surface, but its dimension is ",
                        Number(dimension)});
        named_.emplace_back(tag, group);
    }
}

void Reader::read_entities() {
    scan_.next_line_of("$Entities");
    std::int64_t counts[4];
    for (std::int64_t& count : counts)
        count = scan_.count("the number of entities", 8);
    for (int dimension = 0; dimension < 4; ++dimension)
        for (std::int64_t i = 0; i < counts[dimension]; ++i) {
            scan_.next_line_of("$Entities");
            const std::int64_t tag = scan_.integer("the number of an entity");
            for (int k = 0; k < (dimension == 0 ? 3 : 6); ++k)
                scan_.real("a coordinate of an entity");
            const std::int64_t physicals = scan_.count("the number of physical groups", 1);
            for (std::int64_t k = 0; k < physicals; ++k) {
                const std::int64_t physical = scan_.integer("a physical group");
                if (dimension == 2)
                    physicals_of_surface_[tag].push_back(physical);
            }
        }
}

void Reader::read_point(std::int64_t tag, std::int32_t tag_line) {
    Point p{};
    p.x = scan_.real("a coordinate");
    p.y = scan_.real("a coordinate");
    p.z = scan_.real("a coordinate");
    const auto index = static_cast<std::int32_t>(mesh_.nodes.size());
    if (!node_index_.emplace(tag, index).second)
        throw InputError(mesh_.file, tag_line, {"node ", Number(tag), " is defined twice"});
    mesh_.nodes.push_back(p);
}

// Three unknowns per node are numbered in 32 bits.
constexpr std::int64_t most_nodes = INT32_MAX / 3;

void Reader::read_nodes_2() {
    scan_.next_line_of("$Nodes");
    const std::int64_t count = scan_.count("the number of nodes", 8);
    if (count > most_nodes)
        scan_.fail({"the mesh has more nodes than can be numbered"});
    mesh_.nodes.reserve(static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i) {
        scan_.next_line_of("$Nodes");
        const std::int64_t tag = scan_.integer("a node number");
        read_point(tag, scan_.line());
    }
}

void Reader::read_nodes_4() {
    scan_.next_line_of("$Nodes");
    const std::int64_t blocks = scan_.count("the number of node blocks", 8);
    const std::int64_t total = scan_.count("the number of nodes", 8);
    if (total > most_nodes)
        scan_.fail({"the mesh has more nodes than can be numbered"});
    mesh_.nodes.reserve(static_cast<std::size_t>(total));
    Vector<std::pair<std::int64_t, std::int32_t>> tags;
    for (std::int64_t block = 0; block < blocks; ++block) {
        scan_.next_line_of("$Nodes");
        for (const char* what : {"an entity's dimension", "an entity's number", "0 or 1"})
            scan_.integer(what);
        const std::int64_t count = scan_.count("the number of nodes of a block", 8);
        if (static_cast<std::int64_t>(mesh_.nodes.size()) + count > total)
            scan_.fail({"more nodes than the ", Number(total), " announced"});
        tags.clear();
        for (std::int64_t i = 0; i < count; ++i) {
            scan_.next_line_of("$Nodes");
            tags.emplace_back(scan_.integer("a node number"), scan_.line());
        }
        for (const auto& [tag, line] : tags) {
            scan_.next_line_of("$Nodes");
            read_point(tag, line);
        }
    }
    if (static_cast<std::int64_t>(mesh_.nodes.size()) != total)
        scan_.fail(
            {Number(mesh_.nodes.size()), " nodes instead of the ", Number(total), " announced"});
}

const ElementType& Reader::element_type(std::int64_t number) const {
    const auto type = std::find_if(std::begin(element_types), std::end(element_types),
                                   [&](const ElementType& t) { return t.number == number; });
    if (type == std::end(element_types))
        scan_.fail({"element type ", Number(number), " is not known"});
    if (type->dimension == 3 && type->number != 4 && type->number != 11)
        scan_.fail({"a ", type->name, ": only tetrahedra of first and second order are computed"});
    return *type;
}

// The node numbers of one element, the line's remaining fields.
void Reader::read_element(const ElementType& type, std::int64_t owner) {
    std::array<std::int64_t, 10> nodes{};
    const bool triangle = type.number == 2 || type.number == 9;
    if (type.dimension < 2 || (type.dimension == 2 && !triangle))
        return;
    for (int i = 0; i < type.nodes; ++i)
        nodes[static_cast<std::size_t>(i)] = scan_.integer("a node number");
    if (!scan_.field().empty())
        scan_.fail({"more node numbers than a ", type.name, " has"});
    if (triangle) {
        RawTriangle face{{}, owner, scan_.line(), type.nodes};
        std::copy_n(nodes.begin(), 6, face.nodes.begin());
        triangles_.push_back(face);
        return;
    }
    if (mesh_.nodes_per_element != 0 && mesh_.nodes_per_element != type.nodes)
        scan_.fail({"tetrahedra of first and second order in one mesh are not computed"});
    mesh_.nodes_per_element = type.nodes;
    // The file has the middles of edges 23 and 13 in this order.
    if (type.nodes == 10)
        std::swap(nodes[8], nodes[9]);
    element_nodes_.insert(element_nodes_.end(), nodes.begin(), nodes.begin() + type.nodes);
    mesh_.element_lines.push_back(scan_.line());
}

void Reader::read_elements_2() {
    scan_.next_line_of("$Elements");
    const std::int64_t count = scan_.count("the number of elements", 6);
    for (std::int64_t i = 0; i < count; ++i) {
        scan_.next_line_of("$Elements");
        scan_.integer("an element number");
        const ElementType& type = element_type(scan_.integer("an element type"));
        const std::int64_t tags = scan_.count("the number of tags", 1);
        std::int64_t physical = 0;
        for (std::int64_t k = 0; k < tags; ++k) {
            const std::int64_t tag = scan_.integer("a tag");
            if (k == 0)
                physical = tag;
        }
        read_element(type, physical);
    }
}

void Reader::read_elements_4() {
    scan_.next_line_of("$Elements");
    const std::int64_t blocks = scan_.count("the number of element blocks", 8);
    const std::int64_t total = scan_.count("the number of elements", 4);
    std::int64_t seen = 0;
    for (std::int64_t block = 0; block < blocks; ++block) {
        scan_.next_line_of("$Elements");
        scan_.integer("an entity's dimension");
        const std::int64_t entity = scan_.integer("an entity's number");
        const ElementType& type = element_type(scan_.integer("an element type"));
        const std::int64_t count = scan_.count("the number of elements of a block", 4);
        for (std::int64_t i = 0; i < count; ++i) {
            scan_.next_line_of("$Elements");
            scan_.integer("an element number");
            read_element(type, entity);
        }
        seen += count;
    }
    if (seen != total)
        scan_.fail({Number(seen), " elements instead of the ", Number(total), " announced"});
}

std::int32_t Reader::resolve(std::int64_t tag, std::int32_t line) const {
    const auto at = node_index_.find(tag);
    if (at == node_index_.end())
        throw InputError(mesh_.file, line, {"node ", Number(tag), " does not exist"});
    return at->second;
}

unsigned Reader::groups_of(std::int64_t physical) const {
    unsigned groups = 0;
    for (const auto& [tag, group] : named_)
        // A negative number says that the surface is turned, which is of no matter here.
        if (tag == std::abs(physical))
            groups |= group;
    return groups;
}

void Reader::resolve() {
    const auto per_element = static_cast<std::size_t>(mesh_.nodes_per_element);
    mesh_.elements.resize(element_nodes_.size());
    for (std::size_t i = 0; i < element_nodes_.size(); ++i)
        mesh_.elements[i] = resolve(element_nodes_[i], mesh_.element_lines[i / per_element]);
    for (const RawTriangle& raw : triangles_) {
        unsigned groups = 0;
        if (!version_4_) {
            groups = groups_of(raw.owner);
        } else if (const auto at = physicals_of_surface_.find(raw.owner);
                   at != physicals_of_surface_.end()) {
            for (const std::int64_t physical : at->second)
                groups |= groups_of(physical);
        }
        if (groups == 0)
            continue;
        if (raw.node_count != mesh_.nodes_per_face())
            throw InputError(mesh_.file, raw.line, {"triangle and tetrahedra differ in order"});
        Face face{{}, raw.line};
        for (std::size_t i = 0; i < static_cast<std::size_t>(raw.node_count); ++i)
            face.nodes[i] = resolve(raw.nodes[i], raw.line);
        if (groups & in_fixed)
            mesh_.fixed.push_back(face);
        if (groups & in_load)
            mesh_.load.push_back(face);
    }
}

} // namespace

Mesh parse_gmsh(const String& file, std::string_view text) {
    return Reader(file, text).read();
}

Mesh read_gmsh(const String& file) {
    const Vector<char> text = read_whole_file(file);
    return parse_gmsh(file, {text.data(), text.size()});
}

} // namespace elasticity
