// A bracket with a bored arm, curved elements around the bore: held at its back, loaded at its tip.
// gmsh bracket.geo -3 -order 2 -format msh41 -o bracket.msh
SetFactory("OpenCASCADE");
Box(1) = {0, 0, 0, 0.02, 0.04, 0.12};
Box(2) = {0, 0, 0, 0.12, 0.04, 0.02};
BooleanUnion(3) = { Volume{1}; Delete; }{ Volume{2}; Delete; };
Cylinder(4) = {0.08, 0.02, -0.01, 0, 0, 0.04, 0.01};
BooleanDifference(5) = { Volume{3}; Delete; }{ Volume{4}; Delete; };
Mesh.MeshSizeMin = 0.018;
Mesh.MeshSizeMax = 0.018;
e = 1e-6;
fixed() = Surface In BoundingBox {-e, -e, -e, e, 0.04 + e, 0.12 + e};
load() = Surface In BoundingBox {0.12 - e, -e, -e, 0.12 + e, 0.04 + e, 0.02 + e};
Physical Surface("fixed", 1) = {fixed()};
Physical Surface("load", 2) = {load()};
Physical Volume("body", 3) = {5};
