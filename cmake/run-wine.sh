#!/bin/sh
# Runs a Windows program under Wine, quietly, in a prefix of the build's own (KXM_WINEPREFIX, or
# wine-prefix beside the build folders). Used by CMake and CTest; works by hand as well.
#
#   run-wine.sh PROGRAM.exe [ARGUMENT...]
#   run-wine.sh --server start|stop      keeps Wine's server alive between programs
here=$(CDPATH= cd -- "$(dirname -- "$0")/.." && pwd)
WINEPREFIX=${KXM_WINEPREFIX:-$here/build/wine-prefix}
WINEDEBUG=${WINEDEBUG:--all}
# No desktop integration, no offers to fetch add-ons, no debugger at a crash, no display.
WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml,winemenubuilder.exe,winedbg.exe=}
export WINEPREFIX WINEDEBUG WINEDLLOVERRIDES
unset DISPLAY
mkdir -p "$WINEPREFIX"

# The first of these commands that exists.
first_of() {
    for command in "$@"; do
        if command -v "$command" >/dev/null 2>&1; then
            echo "$command"
            return
        fi
    done
    echo "run-wine.sh: Wine is not installed (Debian package wine64)" >&2
    exit 127
}

if [ "$1" = --server ]; then
    server=$(first_of /usr/lib/wine/wineserver64 /usr/lib/wine/wineserver wineserver) || exit
    case $2 in
    start)
        # The first program starts Wine's services, which live as long as the server and keep what
        # they inherited: it must not be a test, whose reader would wait for them.
        wine=$(first_of /usr/lib/wine/wine64 wine64 wine64-stable wine) || exit
        "$server" -p </dev/null >/dev/null 2>&1
        exec "$wine" wineboot --init </dev/null >/dev/null 2>&1
        ;;
    stop) exec "$server" -k ;;
    esac
    echo "run-wine.sh: --server takes start or stop" >&2
    exit 2
fi
wine=$(first_of /usr/lib/wine/wine64 wine64 wine64-stable wine) || exit
exec "$wine" "$@"
