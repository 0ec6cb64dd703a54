#!/bin/sh
# Builds and runs the benchmarks: medians of interleaved repetitions, side by side with what a user
# would pick instead, as ratios. Takes a few minutes; wants a quiet machine.
set -eu
cd "$(dirname "$0")"
. scripts/common.sh

mkdir -p build
need_build_packages
build linux bench_interface bench_load
unset KXA_DEADBEEF KXQ_DLALLOCATOR KXQ_CRTMALLOC KXQ_USE_ALIGNED_MEMORY
echo
build/linux/bin/bench_interface
echo
build/linux/bin/bench_load
