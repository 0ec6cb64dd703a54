// See terminal.h.
#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace memtrack::platform {

bool error_is_terminal() {
    return isatty(STDERR_FILENO) != 0;
}

bool output_is_terminal() {
    return isatty(STDOUT_FILENO) != 0;
}

int error_columns() {
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
}

void make_output_binary() {}

} // namespace memtrack::platform
