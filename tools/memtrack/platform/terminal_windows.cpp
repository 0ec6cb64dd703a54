// See terminal.h.
#include "terminal.h"

#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <windows.h>

namespace memtrack::platform {

bool error_is_terminal() {
    return _isatty(_fileno(stderr)) != 0;
}

bool output_is_terminal() {
    return _isatty(_fileno(stdout)) != 0;
}

int error_columns() {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    const HANDLE handle = GetStdHandle(STD_ERROR_HANDLE);
    return GetConsoleScreenBufferInfo(handle, &info) != 0 ? info.dwSize.X : 80;
}

void make_output_binary() {
    _setmode(_fileno(stdout), _O_BINARY);
}

} // namespace memtrack::platform
