// Makes the write to unit 7 known to the library while the program or library that links the Fortran
// binding is loaded. Needs nothing of the C++ runtime, so that Fortran's linker may link it.
#include "KXMBasWriteMsg.h"

extern "C" {

void kxm_write_unit7(const char* text, std::int64_t length);

// Linkers are told to look for this name, because nothing else in a program asks for this file.
extern const int kxm_unit7_binding;
const int kxm_unit7_binding = 7;
}

namespace {

struct Binding {
    Binding() : before(kxm::set_unit7_writer(kxm_write_unit7)) {}
    ~Binding() { kxm::set_unit7_writer(before); }
    kxm::Unit7Writer before;
} binding;

} // namespace
