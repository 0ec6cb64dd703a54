// The shared library's function of frames.h.
#include "frames.h"

int frames_in_library(Callback callback, int value) {
    // The sum keeps the call from being the last thing, and its line is what the tests know.
    return callback(value) + 1;
}
