#!/bin/sh
# Builds and runs all tests.
#
#   ./test.sh            on Linux and on Windows (under Wine)
#   ./test.sh linux      on Linux alone
#   ./test.sh windows    on Windows alone
#   ./test.sh check      on both, and further: clang, ASan+UBSan, TSan, the formatting of the sources
#   ./test.sh programs   runs programs that nobody here wrote under kxmrun (Linux; some minutes)
#
# Missing Debian packages are installed (as root or through sudo), or named.
set -eu
cd "$(dirname "$0")"
. scripts/common.sh

on_linux() {
    build "$1"
    echo "== test: $1"
    ctest --preset "$1" --output-on-failure --no-tests=error
}

on_windows() {
    need_windows_packages
    build windows
    echo "== test: windows (Wine)"
    start_wine_server
    trap stop_wine_server EXIT
    trap 'exit 130' INT TERM
    ctest --preset windows --output-on-failure --no-tests=error
}

on_programs() {
    need_build_packages
    need_program_packages
    build linux kxmrun memtrack
    echo "== test: programs"
    /usr/bin/python3 -B tests/programs/run_programs.py --kxmrun build/linux/bin/kxmrun \
        --memtrack build/linux/bin/memtrack build/linux/tests/programs
}

check_format() {
    echo "== formatting"
    git ls-files -z -- '*.cpp' '*.h' '*.c' |
        xargs -0 clang-format-14 --dry-run --Werror
}

what=${1:-both}
[ $# -le 1 ] || {
    echo "test.sh: one argument at most" >&2
    exit 2
}
case $what in
both | linux | windows | check) ;;
programs)
    mkdir -p build
    on_programs
    exit
    ;;
-h | --help)
    print_head
    exit 0
    ;;
*)
    echo "test.sh: unknown argument '$what'" >&2
    print_head >&2
    exit 2
    ;;
esac

mkdir -p build
need_test_packages
# A test run is not to pass because a part was left out of the build.
configure_options=-DKXM_MEMTRACK_HTML=ON
[ $what = windows ] || need_browser_packages
case $what in
linux) on_linux linux ;;
windows) on_windows ;;
both)
    on_linux linux
    on_windows
    ;;
check)
    need_check_packages
    check_format
    on_linux linux
    on_linux linux-clang
    on_linux linux-check
    on_linux linux-tsan
    on_windows
    ;;
esac
echo "All tests passed."
