// The one call that goes up from the platform: the system (on Windows) or the platform's lifetime
// object (on Linux) tells the frame that the library was loaded or is about to go.
#pragma once

/// reason 1: loaded; reason 0: about to be unloaded; 2 and 3 (a thread came, a thread went) do
/// nothing. Returns 1 always. Called under the system's loader lock.
extern "C" int DllMain(void* instance, unsigned long reason, void* reserved);
