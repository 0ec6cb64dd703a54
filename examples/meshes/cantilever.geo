// A short, slender beam for quick runs: held at x = 0, loaded at x = 1.
// gmsh cantilever.geo -3 -order 2 -format msh41 -o cantilever-41.msh
SetFactory("OpenCASCADE");
Box(1) = {0, 0, 0, 1, 0.1, 0.12};
Mesh.MeshSizeMin = 0.05;
Mesh.MeshSizeMax = 0.05;
e = 1e-6;
fixed() = Surface In BoundingBox {-e, -e, -e, e, 0.1 + e, 0.12 + e};
load() = Surface In BoundingBox {1 - e, -e, -e, 1 + e, 0.1 + e, 0.12 + e};
Physical Surface("fixed", 1) = {fixed()};
Physical Surface("load", 2) = {load()};
Physical Volume("body", 3) = {1};
