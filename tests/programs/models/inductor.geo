// An inductor for getdp: an iron core with two legs and an air gap, a coil around the left leg, and air.
// Volumes: 1 core, 2 coil, 3 air. Surface 10: the outside of the air.
SetFactory("OpenCASCADE");
DefineConstant[ size = 12 ]; // millimetres: edge length of an element in the core

Box(1) = {-10, -10, -45, 80, 20, 90};       // the core's outline; its left leg stands on the z axis
Box(2) = {10, -11, -25, 40, 22, 50};        // the window between the legs
Box(3) = {49, -11, -2, 22, 22, 4};          // the gap in the right leg
BooleanDifference(4) = { Volume{1}; Delete; }{ Volume{2, 3}; Delete; };
Cylinder(5) = {0, 0, -20, 0, 0, 40, 24};    // the coil, 16 to 24 millimetres from the axis
Cylinder(6) = {0, 0, -21, 0, 0, 42, 16};
BooleanDifference(7) = { Volume{5}; Delete; }{ Volume{6}; Delete; };
Box(8) = {-100, -100, -120, 260, 200, 240};
BooleanDifference(9) = { Volume{8}; Delete; }{ Volume{4, 7}; };
Coherence;

Physical Volume("core", 1) = {4};
Physical Volume("coil", 2) = {7};
Physical Volume("air", 3) = {9};
outside() = Surface In BoundingBox {-101, -101, -121, 161, 101, -119};
outside() += Surface In BoundingBox {-101, -101, 119, 161, 101, 121};
outside() += Surface In BoundingBox {-101, -101, -121, 161, -99, 121};
outside() += Surface In BoundingBox {-101, 99, -121, 161, 101, 121};
outside() += Surface In BoundingBox {-101, -101, -121, -99, 101, 121};
outside() += Surface In BoundingBox {159, -101, -121, 161, 101, 121};
Physical Surface("outside", 10) = {outside()};
MeshSize{ PointsOf{ Volume{9}; } } = 4 * size;
MeshSize{ PointsOf{ Volume{4, 7}; } } = size;
Mesh.RandomSeed = 1;
General.NumThreads = 1;
