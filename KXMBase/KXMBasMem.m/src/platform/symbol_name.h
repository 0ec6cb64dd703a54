// From a demangled C++ symbol to the name that the debug help of the reference system gives: the
// qualified name, without return type, parameters and what follows them.
#pragma once

#include <cstddef>

namespace os {

/// Cuts `demangled` in place.
void cut_to_name(char* demangled);

/// Copies what fits, terminated. pre: capacity > 0.
void copy_symbol(const char* symbol, char* target, std::size_t capacity);

} // namespace os
