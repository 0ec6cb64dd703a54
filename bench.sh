#!/bin/sh
# Builds and runs the benchmarks: medians of interleaved repetitions, side by side with what a user
# would pick instead, as ratios. Takes some minutes; wants a quiet machine.
set -eu
cd "$(dirname "$0")"
. scripts/common.sh
no_arguments "$@"

mkdir -p build
need_build_packages
need_packages libjemalloc2 libmimalloc2.0 libtcmalloc-minimal4 libtbbmalloc2
build linux bench_interface bench_load bench_callstack bench_heap bench_tiny bench_cache
unset KXA_CALLSTACK_DEPTH KXA_DEADBEEF KXQ_DLALLOCATOR KXQ_CRTMALLOC KXQ_USE_ALIGNED_MEMORY
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
