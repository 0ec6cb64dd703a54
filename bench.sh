#!/bin/sh
# Builds and runs the benchmarks: medians of interleaved repetitions, side by side with what a user
# would pick instead, as ratios. Takes some minutes; wants a quiet machine.
set -eu
cd "$(dirname "$0")"
. scripts/common.sh
no_arguments "$@"

mkdir -p build
need_build_packages
need_packages libjemalloc2 libmimalloc2.0 libtcmalloc-minimal4 libtbbmalloc2 heaptrack valgrind
build linux bench_interface bench_load bench_callstack bench_heap bench_tiny bench_cache bench_tracking \
    bench_memtrack
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
build/linux/bin/bench_tracking
echo
build/linux/bin/bench_memtrack
