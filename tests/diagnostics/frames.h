// Functions for a known stack: each calls back from another kind of code.
#pragma once

extern "C" {
using Callback = int (*)(int);
int frames_in_library(Callback callback, int value); // line 6 of frames_library.cpp
int frames_in_fortran(Callback callback, int value); // line 16 of frames_fortran.f90
}
