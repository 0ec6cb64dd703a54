# Sourced by the scripts at the top of the tree: installs what a machine lacks, builds a preset, and
# keeps Wine's server running while Windows programs are tested.

# The comment at the head of the script that runs: its usage.
print_head() {
    sed -n '2,${/^#/!q;s/^# \{0,1\}//p;}' "$0"
}

# no_arguments "$@": for scripts that take none; -h prints their head.
no_arguments() {
    [ $# -eq 0 ] && return 0
    case $1 in
    -h | --help)
        print_head
        exit 0
        ;;
    esac
    echo "$0 takes no arguments" >&2
    exit 2
}

# need_packages NAME...: Debian packages, installed if missing, or named if that cannot be done.
need_packages() {
    missing=
    for package in "$@"; do
        # shellcheck disable=SC2016  # dpkg-query expands it, not the shell
        case $(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) in
        installed) ;;
        *) missing="$missing $package" ;;
        esac
    done
    [ -n "$missing" ] || return 0
    if [ "$(id -u)" = 0 ]; then
        as_root=
    elif command -v sudo >/dev/null 2>&1; then
        as_root=sudo
    else
        echo "These Debian packages are needed:$missing" >&2
        echo "Install them as root (apt-get install$missing) and run this again." >&2
        exit 1
    fi
    echo "Installing:$missing"
    # shellcheck disable=SC2086  # words are meant to split
    $as_root apt-get -qq update &&
        $as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends \
            install $missing >/dev/null || {
        echo "apt-get could not install:$missing" >&2
        exit 1
    }
}

need_build_packages() {
    need_packages g++ gfortran cmake ninja-build libcli11-dev
}

# npm, Debian's or another, for the chart library in memtrack's page.
need_npm() {
    command -v npm >/dev/null 2>&1 || need_packages npm
}

need_test_packages() {
    need_build_packages
    need_npm
    need_packages googletest pkgconf
    # What opens memtrack's exports, and allocators that its replay compares with.
    need_packages python3 python3-jsonschema valgrind heaptrack protobuf-compiler nodejs
    need_packages libjemalloc2 libmimalloc2.0 libtcmalloc-minimal4
    # The example job on several ranks.
    need_packages libopenmpi-dev openmpi-bin
    need_package_packages
    need_packages man-db mandoc
    need_packages strace # lets calls of memtrack and kxmrun fail
}

# What makes the packages, with man pages and the reference, and what looks at them.
need_package_packages() {
    need_packages python3 dpkg-dev file doxygen lintian
}

# For the test that opens memtrack's page; without them it says that it is skipped.
need_browser_packages() {
    need_packages chromium chromium-driver python3-selenium
}

# What runs under kxmrun in ./test.sh programs, and what it is compared with.
need_program_packages() {
    need_packages getdp gmsh calculix-ccx octave python3 python3-numpy python3-scipy sqlite3 git make gcc \
        valgrind
}

need_windows_packages() {
    need_packages g++-mingw-w64-x86-64-posix gfortran-mingw-w64-x86-64-posix wine64
}

need_check_packages() {
    need_packages clang-14 clang-format-14 libclang-rt-14-dev cppcheck
}

# build PRESET [TARGET...]; $configure_options goes to CMake.
build() {
    preset=$1
    shift
    [ $# -eq 0 ] || set -- --target "$@"
    echo "== build: $preset"
    # shellcheck disable=SC2086  # words are meant to split
    cmake --preset "$preset" ${configure_options:-} >"build/$preset.log" 2>&1 || {
        cat "build/$preset.log" >&2
        return 1
    }
    cmake --build --preset "$preset" "$@" >>"build/$preset.log" 2>&1 || {
        tail -n 60 "build/$preset.log" >&2
        echo "The whole output is in build/$preset.log." >&2
        return 1
    }
}

# Starting Wine takes a second or two; its server, once kept alive, serves every later start.
start_wine_server() {
    cmake/run-wine.sh --server start
}

stop_wine_server() {
    cmake/run-wine.sh --server stop
}
