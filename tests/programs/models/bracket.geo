// A bearing bracket for gmsh: a base plate with four screw holes and rounded edges, an upright with a bore and
// two ribs, cut and joined by the CAD kernel and filled with tetrahedra. bracket.inp loads it.
// gmsh -3 -setnumber size 6 bracket.geo
SetFactory("OpenCASCADE");
DefineConstant[ size = 6 ]; // millimetres: edge length of an element away from the bore

Box(1) = {-60, -40, 0, 120, 80, 12};
Fillet{1}{1, 3, 5, 7}{8}              // the plate's four upright edges
Box(2) = {-30, -8, 12, 60, 16, 50};
Cylinder(3) = {0, -8, 62, 0, 16, 0, 30};
BooleanUnion(4) = { Volume{1}; Delete; }{ Volume{2, 3}; Delete; };
For side In {-1 : 1 : 2}
    rib = newv;
    Wedge(rib) = {-5, 0, 0, 24, 10, 30, 0};
    Rotate {{0, 0, 1}, {0, 0, 0}, side * Pi / 2} { Volume{rib}; }
    Translate {0, side * 8, 12} { Volume{rib}; }
    ribs() += rib;
EndFor
holes() = {};
For x In {-1 : 1 : 2}
    For y In {-1 : 1 : 2}
        hole = newv;
        Cylinder(hole) = {x * 46, y * 28, -1, 0, 0, 14, 5};
        holes() += hole;
    EndFor
EndFor
bore = newv;
Cylinder(bore) = {0, -9, 62, 0, 18, 0, 18};
holes() += bore;
BooleanUnion(100) = { Volume{4}; Delete; }{ Volume{ribs()}; Delete; };
BooleanDifference(101) = { Volume{100}; Delete; }{ Volume{holes()}; Delete; };

Physical Volume("bracket") = {101};
Physical Surface("foot") = {Surface In BoundingBox {-61, -41, -0.1, 61, 41, 0.1}};
Physical Surface("bore") = {Surface In BoundingBox {-18.1, -8.1, 43.9, 18.1, 8.1, 80.1}};
Mesh.MeshSizeMax = size;
Mesh.MeshSizeMin = size / 3;
Mesh.MeshSizeFromCurvature = 16;
Mesh.Optimize = 1;
Mesh.RandomSeed = 1;
Mesh.SaveGroupsOfNodes = 1;
General.NumThreads = 1;
