#!/bin/sh
# Runs a Windows program under Wine, quietly, in a prefix of the build's own (KXM_WINEPREFIX, or
# wine-prefix beside the build folders). Used by CMake and CTest; works by hand as well.
here=$(CDPATH= cd -- "$(dirname -- "$0")/.." && pwd)
WINEPREFIX=${KXM_WINEPREFIX:-$here/build/wine-prefix}
WINEDEBUG=${WINEDEBUG:--all}
# No desktop integration, no offers to fetch add-ons, no debugger at a crash, no display.
WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml,winemenubuilder.exe,winedbg.exe=}
export WINEPREFIX WINEDEBUG WINEDLLOVERRIDES
unset DISPLAY
mkdir -p "$(dirname "$WINEPREFIX")"
for wine in wine64 wine64-stable /usr/lib/wine/wine64 wine; do
    if command -v "$wine" >/dev/null 2>&1; then
        exec "$wine" "$@"
    fi
done
echo "run-wine.sh: Wine is not installed (Debian package wine64)" >&2
exit 127
