#!/bin/sh
# Makes the Debian packages of a build, has lintian look at them, installs them, builds and runs programs in C, C++
# and Fortran against them by CMake and by pkg-config, and takes them off again.
#
#   debian.sh BUILD CLIENT VERSION WORK
#
# The machine is left as it was. Root installs with dpkg into a copy-on-write view of the machine that ends with this
# script; where that cannot be had, the packages are unpacked by dpkg into a folder of their own.
set -eu
PATH=$PATH:/usr/sbin:/sbin
tell() { echo "== $*"; }
fail() { echo "debian.sh: $*" >&2; exit 1; }
says() { # says WHAT PROGRAM...: what the program must print
    expected=$1
    shift
    said=$("$@") || fail "$* failed"
    [ "$said" = "$expected" ] || fail "$* printed '$said', not '$expected'"
}
libraries=usr/lib/x86_64-linux-gnu

# use ROOT CLIENT VERSION WORK: the packages are installed in ROOT, which is empty for the machine itself
use() {
    root=$1 client=$2 version=$3 work=$4
    if [ -n "$root" ]; then
        export CMAKE_PREFIX_PATH="$root/usr" PKG_CONFIG_PATH="$root/$libraries/pkgconfig"
        export LD_LIBRARY_PATH="$root/$libraries"
    fi
    tell "by CMake"
    cmake -S "$client" -B "$work/client" -G Ninja -DEXPECTED_VERSION="$version" >"$work/log" 2>&1 &&
        cmake --build "$work/client" >>"$work/log" 2>&1 || { cat "$work/log"; fail "CMake"; }
    for program in c_client cxx_client global_new_client fortran_client; do
        says 42 "$work/client/$program"
    done
    tell "by pkg-config"
    says "$version" pkg-config --modversion kxmbasmem
    cd "$work"
    # shellcheck disable=SC2046  # words are meant to split
    {
        gcc "-DEXPECTED_VERSION=\"$version\"" "$client/c_client.c" -o c_alone \
            $(pkg-config --cflags --libs kxmbasmem)
        g++ -std=c++17 "$client/cxx_client.cpp" -o cxx_alone $(pkg-config --cflags --libs kxmbasmem)
        gfortran "$client/fortran_client.f90" -o fortran_alone \
            $(pkg-config --cflags --libs kxmbasmem-fortran)
    }
    for program in c_alone cxx_alone fortran_alone; do
        says 42 "$work/$program"
    done
    tell "the tools"
    for tool in kxmdiag memtrack memtrack-replay; do
        says "$tool $version" "$root/usr/bin/$tool" --version
    done
    if [ -x "$root/usr/bin/kxmrun" ]; then
        says "kxmrun $version" "$root/usr/bin/kxmrun" --version
        says 42 "$root/usr/bin/kxmrun" --limit 1G -- "$work/c_alone"
    fi
    "$root/usr/bin/kxmdiag" versions | grep -q "$root/$libraries/libKXMBasMem.so" ||
        fail "kxmdiag found another library"
}

# Inside the view of the machine: installs, uses, takes off.
if [ "${1:-}" = --inside ]; then
    here=$2 version=$3
    tell "dpkg -i, in a view of this machine that is given up"
    dpkg -i "$here"/*.deb >"$here/log" 2>&1 || { cat "$here/log"; fail "dpkg -i"; }
    ldconfig -p | grep -q libKXMBasMem.so.0 || fail "ldconfig was not called"
    use "" "$here/client" "$version" "$here/work"
    dpkg -P libkxmbasmem0 libkxmbasmem-dev libkxmbasmem-fortran-dev kxmbasmem-tools kxmbasmem-doc \
        >"$here/log" 2>&1 || { cat "$here/log"; fail "dpkg -P"; }
    left=$(find /usr -path /usr/local -prune -o -iname '*kxmbas*' -print)
    [ -z "$left" ] || fail "left behind: $left"
    exit 0
fi

# What only the mounts of this process see.
if [ "${1:-}" = --view ]; then
    script=$2 packages=$3 client=$4 version=$5 work=$6
    view=$work/view
    mount -t tmpfs tmpfs "$work" 2>/dev/null || exit 77
    mkdir -p "$view" "$work/upper" "$work/inner"
    mount -t overlay overlay -o "lowerdir=/,upperdir=$work/upper,workdir=$work/inner" "$view" 2>/dev/null &&
        chroot "$view" sh -c 'command -v cmake dpkg gfortran' >/dev/null || exit 77
    for folder in proc dev; do
        mount --rbind /$folder "$view/$folder"
    done
    mkdir -p "$view/kxm/work"
    cp -r "$client" "$view/kxm/client"
    cp "$script" "$packages"/*.deb "$view/kxm"
    exec chroot "$view" sh "/kxm/${script##*/}" --inside /kxm "$version"
fi

[ $# -eq 4 ] || fail "wrong call"
build=$1 client=$2 version=$3 work=$4
rm -rf "$work"
mkdir -p "$work/packages" "$work/view"
tell "cpack"
cpack --config "$build/CPackConfig.cmake" -B "$work/packages" >"$work/log" 2>&1 ||
    { cat "$work/log"; fail "cpack"; }
rm -r "$work/packages/_CPack_Packages"
[ "$(find "$work/packages" -name '*.deb' | wc -l)" = 5 ] || fail "there are not five packages"
tell "lintian"
lintian --allow-root --fail-on error,warning "$work/packages"/*.deb

if [ "$(id -u)" = 0 ]; then
    status=0
    unshare --mount sh "$0" --view "$(realpath "$0")" "$work/packages" "$client" "$version" "$work/view" ||
        status=$?
    [ $status -ne 0 ] || exit 0
    [ $status -eq 77 ] || [ $status -eq 1 ] || fail "status $status"
    [ $status -eq 77 ] || ! unshare --mount true 2>/dev/null || exit 1
fi
tell "dpkg --root"
root=$work/root
mkdir -p "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/info" "$work/use"
: >"$root/var/lib/dpkg/status"
dpkg --root="$root" --log=/dev/null --force-depends,not-root,script-chrootless \
    -i "$work/packages"/*.deb >"$work/log" 2>&1 || { cat "$work/log"; fail "dpkg"; }
use "$root" "$client" "$version" "$work/use"
