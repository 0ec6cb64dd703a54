#!/bin/sh
# Builds and runs all tests.
#
#   ./test.sh            on Linux and on Windows (under Wine)
#   ./test.sh linux      on Linux alone
#   ./test.sh windows    on Windows alone
#   ./test.sh check      on both, and further: clang, ASan+UBSan, TSan, cppcheck, the formatting of the sources
#   ./test.sh soak [N]   what takes longer: N minutes (60), half of them threads under stress on every back end,
#                        plainly, under TSan and under Wine, half of them the fuzzers. Before that, as long as it
#                        takes, every n-th system call failing (5 N of each kind), systems that give little and disks
#                        that fill up; behind it what analyse does. Each part tells how long it took.
#   ./test.sh coverage   what of the sources runs in the tests on Linux and with what the fuzzers of a soak kept;
#                        fails where a branch of the library or of memtrack never runs for no reason that
#                        tests/unreached.txt tells
#   ./test.sh analyse    cppcheck, clang-tidy and GCC's -fanalyzer over all but the tests, as built for both systems
#   ./test.sh programs   programs that nobody here wrote under kxmrun (Linux; some minutes)
#
# Missing Debian packages are installed (as root or through sudo), or named.
set -eu
cd "$(dirname "$0")"
. scripts/common.sh

on_linux() {
    build "$1"
    echo "== test: $1"
    ctest --preset "$1" -j "$(nproc)" --output-on-failure --no-tests=error
}

on_windows() {
    need_windows_packages
    build windows
    echo "== test: windows (Wine)"
    start_wine_server
    trap stop_wine_server EXIT
    trap 'exit 130' INT TERM
    ctest --preset windows -j "$(nproc)" --output-on-failure --no-tests=error
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

analyse() {
    echo "== cppcheck"
    for platform in unix64 "win64 -D_WIN32"; do
        # shellcheck disable=SC2086  # words are meant to split
        cppcheck --std=c++20 --language=c++ --enable=warning,performance,portability --inline-suppr \
            --error-exitcode=1 --quiet -j 2 --platform=$platform \
            -IKXMBase/ProtectedInterfaces -IKXMBase/KXMBasMem.m/src -IKX0CORE \
            KXMBase KX0CORE bindings tools examples/elasticity
    done
}

# clang-tidy and -fanalyzer, as part of a build that stands for itself: what has not changed is not done again.
analyse_further() {
    need_windows_packages
    configure_options="-DKXM_EXAMPLE_MPI=ON"
    build linux-analyse
    build windows-analyse
}

# stress SECONDS PROGRAM...: on every back end, for that long in all.
stress() {
    seconds=$((($1 + 5) / 6))
    shift
    scratch=$(mktemp -d)
    for variables in KXQ_CRTMALLOC=1 KXA_DEADBEEF=1 KXQ_USE_ALIGNED_MEMORY=1 KXQ_DLALLOCATOR=1 \
        "KXQ_DLALLOCATOR=1 KXM_STRESS_TINY=1" \
        "KXQ_DLALLOCATOR=1 KXA_MEM_TRACK=1 KXA_MEM_OUTPUTDIR=$scratch"; do
        left=$seconds
        while [ "$left" -gt 0 ]; do # in slices, with another seed and another number of threads each
            slice=$((left < 30 ? left : 30))
            began=$(date +%s)
            echo "$variables $slice $((left % 13 + 2)) $left"
            # shellcheck disable=SC2086  # words are meant to split
            env $variables "$@" "$slice" $((left % 13 + 2)) "$left"
            # A recorded slice ends early, before it fills the disk.
            took=$(($(date +%s) - began))
            left=$((left - (took > 0 ? took : 1)))
            rm -f "$scratch"/*
        done
    done
    rm -r "$scratch"
}

# refused_under_wine: the stress program with every n-th call of one kind failing.
refused_under_wine() {
    scratch=$(mktemp -d)
    for each in 2 3 5 9; do
        for variables in "KXQ_DLALLOCATOR=1 KXM_INJECT=VirtualAlloc:$each" \
            "KXQ_DLALLOCATOR=1 KXM_STRESS_TINY=1 KXM_INJECT=VirtualAlloc:$each" \
            "KXQ_DLALLOCATOR=1 KXM_INJECT=CreateEventW:${each}0000" "KXM_INJECT=malloc:$each" \
            "KXQ_USE_ALIGNED_MEMORY=1 KXM_INJECT=malloc:$each" \
            "KXQ_DLALLOCATOR=1 KXA_MEM_TRACK=1 KXA_MEM_OUTPUTDIR=$scratch KXM_INJECT=_write:$each"; do
            echo "$variables"
            # shellcheck disable=SC2086  # words are meant to split
            env WINEPATH="$PWD/build/windows/bin" KXM_STRESS_REFUSED=often $variables \
                cmake/run-wine.sh build/windows/tests/bin/stress.exe 1 6 "$each"
            rm -f "$scratch"/*
        done
    done
    rm -r "$scratch"
}

part() {
    now=$(date +%s)
    [ -z "${part_began:-}" ] || echo "== took $((now - part_began)) s"
    part_began=$now
    [ $# -eq 0 ] || echo "== $1"
}

soak() {
    minutes=$1
    part "builds"
    need_windows_packages
    build linux
    build linux-tsan stress
    build windows stress
    build linux-fuzz fuzz_heap fuzz_tiny fuzz_cache fuzz_recorder fuzz_memtrack
    programs=build/linux/bin
    tests=build/linux/tests/bin
    mesh=examples/meshes/cantilever-22.msh
    part "every n-th system call fails"
    python3 -B tests/soak/fault_injection.py "$programs" "$tests" "$mesh" --most $((minutes < 3 ? 15 : 5 * minutes))
    part "systems that give little"
    python3 -B tests/soak/restricted.py "$programs" "$tests" "$mesh"
    part "disks that fill up"
    python3 -B tests/soak/full_disk.py "$programs" "$tests" "$mesh" --most 100
    part "threads under stress"
    stress $((minutes * 10)) "$tests/stress"
    part "threads under stress, TSan"
    TSAN_OPTIONS="allocator_may_return_null=1 suppressions=$PWD/tests/support/tsan.supp halt_on_error=1" \
        stress $((minutes * 10)) build/linux-tsan/tests/bin/stress
    part "threads under stress, Wine"
    start_wine_server
    trap stop_wine_server EXIT
    trap 'exit 130' INT TERM
    WINEPATH="$PWD/build/windows/bin" stress $((minutes * 10)) cmake/run-wine.sh build/windows/tests/bin/stress.exe
    part "calls fail under Wine"
    refused_under_wine
    part "fuzzers"
    for target in heap tiny cache recorder memtrack; do
        findings=build/linux-fuzz/findings-$target
        mkdir -p "$findings"
        corpus=tests/fuzz/corpus/$target
        [ -d "$corpus" ] || corpus=
        TMPDIR=/dev/shm build/linux-fuzz/tests/bin/fuzz_$target -max_len=4000 -verbosity=0 -print_final_stats=1 \
            -max_total_time=$((minutes * 6)) -artifact_prefix="$findings/" "$findings" $corpus
    done
    part "static analysis"
    analyse
    analyse_further
    part
}

coverage() {
    profiles=$PWD/build/linux-coverage/profiles
    # The build runs programs too, which would else leave theirs in the tree.
    export LLVM_PROFILE_FILE="$profiles/%m%c.profraw"
    build linux-coverage
    rm -rf "$profiles"
    mkdir "$profiles"
    # Where there is little to be mapped, the counters are what fails.
    ctest --preset linux-coverage -j "$(nproc)" --output-on-failure --no-tests=error -E test_restricted
    # What happens at load is counted only where the counts are written in the end.
    LLVM_PROFILE_FILE="$profiles/exit-%m.profraw" ctest --preset linux-coverage -R 'test_(frame|objects|client|tracking)'
    for target in heap tiny cache recorder memtrack; do
        findings=build/linux-fuzz/findings-$target
        [ ! -d "$findings" ] ||
            TMPDIR=/dev/shm build/linux-coverage/tests/bin/fuzz_$target -runs=0 -verbosity=0 "$findings"
    done
    python3 -B tests/coverage.py build/linux-coverage "$profiles" build/linux-coverage/unreached.txt tests/unreached.txt
}

what=${1:-both}
minutes=60
case $#:$what in
0:* | 1:*) ;;
2:soak) minutes=$2 ;;
*)
    echo "test.sh: one argument at most, and the minutes of soak" >&2
    exit 2
    ;;
esac
case $minutes in
'' | *[!0-9]* | 0*)
    echo "test.sh: '$minutes' is no number of minutes" >&2
    exit 2
    ;;
esac
case $what in
both | linux | windows | check | soak | coverage | analyse) ;;
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
configure_options="-DKXM_MEMTRACK_HTML=ON -DKXM_MAN_PAGES=ON -DKXM_EXAMPLE_MPI=ON"
case $what in
windows | soak | coverage | analyse) ;;
*) need_browser_packages ;;
esac
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
    analyse
    on_linux linux
    on_linux linux-clang
    on_linux linux-check
    on_linux linux-tsan
    on_windows
    ;;
coverage)
    need_packages clang-14 libclang-rt-14-dev llvm-14
    coverage
    exit
    ;;
soak)
    need_check_packages
    need_packages clang-tidy-14
    soak "$minutes"
    ;;
analyse)
    need_check_packages
    need_packages clang-tidy-14
    analyse
    analyse_further
    ;;
esac
echo "All tests passed."
