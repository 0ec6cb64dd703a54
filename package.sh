#!/bin/sh
# Builds the library and its tools and makes packages of them in build/packages: for Debian and, with mingw-w64,
# a zip for Windows x64.
#
#   ./package.sh            both
#   ./package.sh debian     those for Debian alone
#   ./package.sh windows    the zip alone
#
# Missing Debian packages are installed (as root or through sudo), or named.
set -eu
cd "$(dirname "$0")"
. scripts/common.sh

# pack PRESET: what cpack makes of a build
pack() {
    preset=$1
    build "$preset" kxm_installed docs
    echo "== packages: $preset"
    cpack --config "build/$preset/CPackConfig.cmake" -B build/packages >>"build/$preset.log" 2>&1 || {
        tail -n 40 "build/$preset.log" >&2
        return 1
    }
    rm -rf build/packages/_CPack_Packages
}

what=${1:-both}
[ $# -le 1 ] || {
    echo "package.sh: one argument at most" >&2
    exit 2
}
case $what in
both | debian | windows) ;;
-h | --help)
    print_head
    exit 0
    ;;
*)
    echo "package.sh: unknown argument '$what'" >&2
    print_head >&2
    exit 2
    ;;
esac

mkdir -p build
need_build_packages
need_npm
need_package_packages
configure_options="-DKXM_MEMTRACK_HTML=ON -DKXM_MAN_PAGES=ON"
rm -rf build/packages
[ $what = windows ] || pack linux
if [ $what != debian ]; then
    need_windows_packages
    pack windows
fi
(cd build/packages && sha256sum -- * >SHA256SUMS)
ls -l build/packages
[ $what = windows ] || {
    echo "To install: apt-get install ./build/packages/*.deb"
    echo "To take off: apt-get remove libkxmbasmem0 kxmbasmem-doc"
}
