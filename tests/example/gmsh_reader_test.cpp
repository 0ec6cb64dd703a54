// Reading of mesh files: good ones in both formats, and what must be refused of damaged ones.
#include "cube_mesh.h"
#include "gmsh_reader.h"
#include "input_error.h"

#include <gtest/gtest.h>

#include <string>

using namespace elasticity;

namespace {

// One tetrahedron, a point that it does not use, and node numbers with gaps.
const std::string good_22 =
    "$MeshFormat\n2.2 0 8\n$EndMeshFormat\n"
    "$PhysicalNames\n3\n2 1 \"fixed\"\n2 2 \"load\"\n3 3 \"body\"\n"
    "$EndPhysicalNames\n"
    "$Nodes\n5\n1 0 0 0\n2 1 0 0\n30 0 1 0\n40 0 0 1\n900 5 5 5\n$EndNodes\n"
    "$Elements\n4\n1 15 2 0 1 900\n2 2 2 1 1 1 2 30\n3 2 2 2 2 1 2 40\n"
    "4 4 2 3 1 1 2 30 40\n$EndElements\n";

const std::string good_41 = "$MeshFormat\n4.1 0 8\n$EndMeshFormat\n"
                            "$PhysicalNames\n2\n2 7 \"fixed\"\n2 8 \"load\"\n$EndPhysicalNames\n"
                            "$Entities\n1 0 2 1\n1 5 5 5 0\n"
                            "1 0 0 0 1 1 0 1 7 0\n2 0 0 0 1 0 1 1 8 0\n1 0 0 0 1 1 1 0 2 1 -2\n"
                            "$EndEntities\n"
                            "$Nodes\n2 5 1 900\n0 1 0 1\n900\n5 5 5\n"
                            "3 1 0 4\n1\n2\n30\n40\n0 0 0\n1 0 0\n0 1 0\n0 0 1\n$EndNodes\n"
                            "$Elements\n3 3 1 4\n2 1 2 1\n2 1 2 30\n2 2 2 1\n3 1 2 40\n"
                            "3 1 4 1\n4 1 2 30 40\n$EndElements\n";

Mesh read(const std::string& text) {
    Mesh mesh = parse_gmsh("m.msh", text);
    check_mesh(mesh);
    renumber(mesh);
    return mesh;
}

std::string refusal(const std::string& text) {
    try {
        read(text);
    } catch (const InputError& error) {
        return error.what();
    }
    return "accepted";
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

TEST(GmshReader, ReadsBothFormatsAlike) {
    for (const std::string& text :
         {good_22, good_41, replaced(good_22, "2.2 0 8\n", "2.2 0 8\r\n"),
          replaced(good_22, "$Nodes", "$Comments\n$x 1\n$EndComments\n$Nodes")}) {
        const Mesh mesh = read(text);
        EXPECT_EQ(mesh.element_count(), 1U);
        EXPECT_EQ(mesh.nodes.size(), 4U) << "the lone point takes no part";
        ASSERT_EQ(mesh.fixed.size(), 1U);
        ASSERT_EQ(mesh.load.size(), 1U);
        EXPECT_EQ(bounding_box(mesh.nodes).high.z, 1);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(mesh.nodes[static_cast<std::size_t>(
                                     mesh.fixed[0].nodes[static_cast<std::size_t>(i)])]
                          .z,
                      0);
    }
}

TEST(GmshReader, NamesWhatIsWrongAndWhere) {
    struct Damage {
        const std::string& good;
        const char* from;
        const char* to;
        const char* message;
    };
    const Damage damages[] = {
        {good_22, "$MeshFormat", "solid", "m.msh:1: not a Gmsh mesh"},
        {good_22, "2.2 0 8", "2.2 1 8", "m.msh:2: a binary mesh"},
        {good_22, "2.2 0 8", "4 0 8", "m.msh:2: mesh format 4 is not read"},
        {good_22, "$Nodes", "$Node", "the file ends inside $EndNode"},
        {good_22, "$Nodes\n5", "$Nodes\n4", "m.msh:16: $EndNodes should stand here"},
        {good_22, "$Nodes\n5", "$Nodes\n6", "m.msh:17: \"$EndNodes\" stands where a node number"},
        {good_22, "$Nodes\n5", "$Nodes\n-5", "m.msh:11: the number of nodes is negative"},
        {good_22, "$Nodes\n5", "$Nodes\n900000000000", "more than the rest of the file can hold"},
        {good_22, "2 1 0 0", "2 1 0", "m.msh:13: the line ends where a coordinate"},
        {good_22, "2 1 0 0", "2 nan 0 0", "m.msh:13: a coordinate is not a finite number"},
        {good_22, "2 1 0 0", "2 1e999 0 0", "m.msh:13: "},
        {good_22, "2 1 0 0", "2 1,0 0 0", "m.msh:13: \"1,0\" stands where"},
        {good_22, "30 0 1 0", "2 0 1 0", "m.msh:14: node 2 is defined twice"},
        {good_22, "40 0 0 1", "40 1 1 0", "m.msh:23: degenerate tetrahedron"},
        {good_22, "40 0 0 1", "40 0 0 -1", "m.msh:23: inverted tetrahedron"},
        {good_22, "1 2 30 40\n", "1 2 30 41\n", "m.msh:23: node 41 does not exist"},
        {good_22, "1 2 30 40\n", "1 2 30 900\n", "is not a face of any tetrahedron"},
        {good_22, "1 2 30 40\n", "1 2 30\n", "m.msh:23: the line ends where a node number"},
        {good_22, "1 2 30 40\n", "1 2 30 40 900\n",
         "m.msh:23: more node numbers than a tetrahedron"},
        {good_22, "4 4 2 3 1 1 2 30 40", "4 2 2 3 1 1 2 30", "the file has no tetrahedra"},
        {good_22, "4 4 2 3 1 1 2 30 40", "4 5 2 3 1 1 2 30 40 1 2 30 40", "m.msh:23: a hexahedron"},
        {good_22, "4 4 2 3 1 1 2 30 40", "4 94 2 3 1 1 2 30 40", "m.msh:23: element type 94"},
        {good_22, "1 15 2 0 1 900", "1 4 2 3 1 1 2 30 40",
         "m.msh:23: tetrahedron has the same nodes"},
        {good_22, "1 15 2 0 1 900", "1 2 2 1 1 1 30 2", "m.msh:21: triangle has the same nodes"},
        {good_22, "1 15 2 0 1 900", "1 11 2 3 1 1 2 30 40 1 2 30 40 1 2", "first and second order"},
        {good_22, "2 1 \"fixed\"", "2 1 \"clamp\"",
         "no triangle belongs to a physical surface named \"fixed\""},
        {good_22, "2 1 \"fixed\"", "3 1 \"fixed\"", "m.msh:6: group \"fixed\" must be a surface"},
        {good_22, "2 2 \"load\"", "2 9 \"load\"",
         "no triangle belongs to a physical surface named \"load\""},
        {good_41, "$Nodes\n2 5", "$Nodes\n2 4", "more nodes than the 4 announced"},
        {good_41, "$Nodes\n2 5", "$Nodes\n2 6", "5 nodes instead of the 6 announced"},
        {good_41, "3 3 1 4", "3 5 1 4", "3 elements instead of the 5 announced"},
        {good_41, "1 1 0 1 7 0", "1 1 0 0 7 0", "named \"fixed\""},
        {good_41, "$Entities", "$PartitionedEntities", "a partitioned mesh is not read"},
        {good_41, "4 1 2 30 40", "4 1 2 30 99999999999", "node 99999999999 does not exist"},
    };
    for (const Damage& damage : damages) {
        const std::string answer = refusal(replaced(damage.good, damage.from, damage.to));
        EXPECT_NE(answer.find(damage.message), std::string::npos)
            << damage.from << " -> " << damage.to << ": " << answer;
    }
}

TEST(GmshReader, RefusesPartsThatNothingHolds) {
    // A second tetrahedron apart from the first, which alone has the fixed face.
    std::string text = replaced(good_22, "$Nodes\n5", "$Nodes\n8");
    text = replaced(text, "900 5 5 5", "900 5 5 5\n901 6 5 5\n902 5 6 5\n903 5 5 6");
    text = replaced(text, "1 15 2 0 1 900", "1 4 2 3 1 900 901 902 903");
    EXPECT_NE(refusal(text).find("m.msh:23: the part of the mesh"), std::string::npos)
        << refusal(text);
}

TEST(GmshReader, RefusesAFaceWhoseEdgeMiddlesAreNotItsElements) {
    Mesh mesh = test::CubeMesh(10).take();
    check_mesh(mesh);
    mesh.load.front().nodes[4] = mesh.fixed.front().nodes[4];
    EXPECT_THROW(check_mesh(mesh), InputError);
}

TEST(GmshReader, RefusesEveryTruncation) {
    for (const std::string& good : {good_22, good_41})
        for (std::size_t length = 0; length + 1 < good.size(); ++length)
            ASSERT_NE(refusal(good.substr(0, length)), "accepted") << length;
}

TEST(GmshReader, AnyDamagedByteIsReadOrRefused) {
    const char damage[] = {'\0', '\n', ' ', '-', '0', '7', '9', '$', '"', 'e', '\x7f', '\xff'};
    for (const std::string& good : {good_22, good_41})
        for (std::size_t at = 0; at < good.size(); ++at)
            for (const char c : damage) {
                std::string text = good;
                text[at] = c;
                EXPECT_NO_FATAL_FAILURE(refusal(text));
            }
}

} // namespace
