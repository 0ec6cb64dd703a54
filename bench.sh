#!/bin/sh
# Builds and runs the benchmarks: medians of interleaved repetitions, side by side with what a user
# would pick instead, as ratios. Takes some minutes; wants a quiet machine.
#
#   ./bench.sh            all
#   ./bench.sh programs   only whole programs, which nobody here wrote, under kxmrun
set -eu
cd "$(dirname "$0")"
. scripts/common.sh

on_programs() {
    need_program_packages
    build linux kxmrun
    echo
    /usr/bin/python3 -B bench/bench_programs.py --kxmrun build/linux/bin/kxmrun build/linux/bench-programs
}

what=${1:-all}
case $#$what in
0all | 1programs) ;;
1-h | 1--help)
    print_head
    exit 0
    ;;
*)
    echo "bench.sh: unknown argument '$*'" >&2
    print_head >&2
    exit 2
    ;;
esac

mkdir -p build
need_build_packages
need_packages libjemalloc2 libmimalloc2.0 libtcmalloc-minimal4 libtbbmalloc2 heaptrack valgrind
if [ "$what" = programs ]; then
    on_programs
    exit
fi
build linux bench_interface bench_load bench_callstack bench_heap bench_tiny bench_cache bench_tree_depth bench_client \
    bench_tracking bench_datachecks bench_memtrack
unset KXA_CALLSTACK_DEPTH KXA_DEADBEEF KXQ_DLALLOCATOR KXQ_CRTMALLOC KXQ_USE_ALIGNED_MEMORY
unset KXA_MEM_TRACK KXA_MEM_OUTPUTDIR KXA_MEM_DBTRANS
echo
build/linux/bin/bench_interface
echo
build/linux/bin/bench_load
echo
build/linux/bin/bench_callstack
echo
build/linux/bin/bench_heap
echo
build/linux/bin/bench_tiny
echo
build/linux/bin/bench_cache
echo
build/linux/bin/bench_tree_depth
echo
build/linux/bin/bench_client
KXQ_DLALLOCATOR=1 build/linux/bin/bench_client
echo
build/linux/bin/bench_tracking
echo
build/linux/bin/bench_datachecks
echo
build/linux/bin/bench_memtrack
on_programs
