#!/bin/sh
# Builds the library and runs the example job on it: a steel cantilever of 57,000 tetrahedra, solved
# once on each back end, and three times against a memory limit that is too low; on three processes, too,
# where mpirun is installed. Shows what each run allocated, how a refusal is reported and survived, what the
# library says of a leak and of a read of what was never written, and where the results are.
set -eu
cd "$(dirname "$0")"
. scripts/common.sh
no_arguments "$@"

mkdir -p build demo-output
need_build_packages
need_npm
build linux elasticity elasticity_ranks elasticity_demo_mesh memtrack kxmdiag heat kxmrun

program=build/linux/bin/elasticity
mesh=build/linux/examples/elasticity/beam.msh
# The job itself chooses the back end by its option.
unset KXA_DEADBEEF KXQ_DLALLOCATOR KXQ_CRTMALLOC KXQ_USE_ALIGNED_MEMORY
unset KXA_MEM_TRACK KXA_MEM_OUTPUTDIR KXA_MEM_DBTRANS
unset KXA_UMR_PRINT KXA_UMR_WATCH_ALLOC_ID KXA_UMR_PRINT_ALLOC_SIZE

# figure FILE NAME: one member of a run's figures.
figure() {
    sed -n "s/^ *\"$2\": \"\{0,1\}\([^\",]*\)\"\{0,1\},\{0,1\}$/\1/p" "$1"
}

echo
echo "A cantilever 2 m long and 0.2 m thick, clamped at one end, 1000 N on the other."
for backend in crt guarded aligned heap; do
    echo
    echo "== back end $backend"
    "$program" --backend $backend --output demo-output/beam-$backend.vtu \
        --json demo-output/beam-$backend.json "$mesh"
done

echo
echo "back end   requests   asked for MiB   footprint at most MiB   solve s   from beam theory"
for backend in crt guarded aligned heap; do
    file=demo-output/beam-$backend.json
    printf '%s %s %s %s %s %s\n' $backend "$(figure $file requests)" "$(figure $file asked_bytes)" \
        "$(figure $file max_footprint_bytes)" "$(figure $file solve_seconds)" \
        "$(figure $file difference)"
done | awk '{ printf "%-8s %10d %15.1f %23.1f %9.2f %15.2f %%\n",
              $1, $2, $3 / 1048576, $4 / 1048576, $5, 100 * $6 }'

echo
echo "== the heap with and without its pool for blocks of at most 128 bytes"
"$program" --backend heap --tiny-pool --quiet --json demo-output/beam-pool.json "$mesh"
echo "The rows of the matrix are found as linked lists, with one node of 16 bytes a column."
echo "pool   small requests   rows found in s   footprint then MiB   at most MiB   solve s"
for pool in off on; do
    file=demo-output/beam-heap.json
    [ $pool = off ] || file=demo-output/beam-pool.json
    printf '%s %s %s %s %s %s\n' $pool "$(figure $file small_requests)" \
        "$(figure $file couple_seconds)" "$(figure $file couple_footprint_kib)" \
        "$(figure $file max_footprint_bytes)" "$(figure $file solve_seconds)"
done | awk '{ printf "%-4s %16d %17.3f %20.1f %13.1f %9.2f\n",
              $1, $2, $3, $4 / 1024, $5 / 1048576, $6 }'

echo
echo "== the heap, elements and nodes held as records in a cache pool, by identifiers"
"$program" --backend heap --cache-pool --output demo-output/beam-records.vtu \
    --json demo-output/beam-records.json "$mesh" | grep -A 3 "records:"
echo "Handles take half of what pointers would; the job keeps its arrays too, so it holds the mesh twice here."
echo "What the summary counts, in words of 4 bytes: docs/cache-pool.md"
cmp demo-output/beam-heap.vtu demo-output/beam-records.vtu
echo "The results are those of the heap without it, to the byte."

# The same job with less memory than it wants, and what it may do about that.
limited() {
    status=0
    "$program" --backend heap --quiet "$@" "$mesh" || status=$?
}
finished() {
    figure "demo-output/$1.json" difference |
        awk -v status=$status '{ printf "The job finished, with exit status %d; from beam theory: %+.2f %%\n",
                                 status, 100 * $1 }'
}

echo
echo "== the heap with a hard limit of 100 MiB, which this job outgrows"
limited --memory-limit 100
echo "The job ended by itself, with its exit status for memory: $status"
[ $status -eq 4 ]

echo
echo "== the same limit, which the job may raise step by step as far as 250 MiB"
limited --memory-limit 100 --raise-limit 250 --json demo-output/beam-raised.json
finished beam-raised
[ $status -eq 0 ]

echo
echo "== a limit of 210 MiB, and 20 MiB held back that the job can spare"
limited --memory-limit 210 --reserve 20 --json demo-output/beam-reserve.json
finished beam-reserve
[ $status -eq 0 ]

echo
echo "== the heap, with every allocation recorded in files, and what memtrack reads from them"
rm -f demo-output/beam.memT* demo-output/beam.phaseStack demo-output/beam.html
KXA_MEM_TRACK=1 KXA_MEM_OUTPUTDIR=demo-output "$program" --backend heap --tracking beam "$mesh" |
    grep '^Tracking'
build/linux/bin/memtrack report -n 5 demo-output/beam
echo
size=$(du -ch demo-output/beam.memT* demo-output/beam.phaseStack | tail -n 1 | cut -f 1)
echo "The files, $size, are demo-output/beam.memT* and beam.phaseStack; they may be deleted."
# The page is left out of a build that npm could not fetch its chart library for.
if build/linux/bin/memtrack html --quiet --force --output demo-output/beam.html demo-output/beam; then
    echo "The same as a page, to look into with a browser: demo-output/beam.html"
fi
echo "More of it, each with --help: build/linux/bin/memtrack leaks | peak | phases | events | block | diff"

# On several processes; also as root and with fewer cores, which Open MPI would refuse.
ranks() {
    OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 \
        OMPI_MCA_btl_vader_single_copy_mechanism=none OMPI_MCA_mpi_yield_when_idle=1 \
        mpirun --oversubscribe "$@"
}
echo
if command -v mpirun >/dev/null 2>&1 && [ -x build/linux/bin/elasticity_mpi ]; then
    echo "== the job on three processes, each with a limit of 120 MiB, which one alone outgrows, and recorded"
    rm -f demo-output/ranks.*
    ranks -n 3 -x KXA_MEM_TRACK=1 -x KXA_MEM_OUTPUTDIR=demo-output build/linux/bin/elasticity_mpi \
        --backend heap --tiny-pool --memory-limit 120 --tracking ranks \
        --output demo-output/ranks.vtu "$mesh" |
        grep -e '^deflection' -e '^difference' -e '^rank ' -e '^[0-9] '
    echo
    echo "What memtrack reads from the three records together:"
    build/linux/bin/memtrack report -n 3 demo-output/ranks.0 demo-output/ranks.1 demo-output/ranks.2 |
        grep --no-group-separator -e ' ranks: ' -e '^Peak' -e '^Over' -A 3
    size=$(du -ch demo-output/ranks.*.memT* | tail -n 1 | cut -f 1)
    echo "The files, $size, are demo-output/ranks.*; they may be deleted. The result is ranks.pvtu."
else
    echo "== the job on several processes is left out: no mpirun here, or the build found no MPI"
    echo "   (Debian packages libopenmpi-dev and openmpi-bin)"
fi

echo
echo "== a solver in Fortran alone, with a limit of 5 MiB: it keeps fewer snapshots and finishes"
KXQ_DLALLOCATOR=1 build/linux/bin/heat --limit 5

echo
echo "== two mistakes made on purpose, on a small mesh, and what the library says of them"
small=examples/meshes/cantilever-41.msh
echo "A forgotten array, with the vectors on the tracking allocator:"
"$program" --backend heap --quiet --leak "$small"
echo "A read of what nobody wrote, with KXA_UMR_PRINT=1 (words of 32 bits in a block of 400 bytes):"
(cd demo-output && KXA_UMR_PRINT=1 "../$program" --backend heap --quiet --uninitialised-read \
    "../$small")

echo
echo "== kxmrun: a program that knows nothing of the library, sort, on its heap; recorded; and refused memory"
seq 200000 -1 1 >demo-output/numbers
build/linux/bin/kxmrun --summary --track-dir demo-output --track-name sort -- \
    sort -n --parallel=1 -S 8M demo-output/numbers -o demo-output/sorted
build/linux/bin/memtrack report -n 1 demo-output/sort | sed -n '1,5p'
status=0
build/linux/bin/kxmrun --limit 4M -- sort -n -S 64M demo-output/numbers -o demo-output/sorted || status=$?
echo "sort made do with less; its exit status: $status"
[ $status -eq 0 ]

echo
echo "== kxmdiag: what the library finds on this machine, and a deliberate fault"
KXQ_DLALLOCATOR=1 build/linux/bin/kxmdiag settings | sed -n '1,5p'
build/linux/bin/kxmdiag memory
build/linux/bin/kxmdiag fault mem_stack_overwrite2
echo "All of them, and which tool catches which: build/linux/bin/kxmdiag faults, docs/faults.md"

echo
echo "All containers, operators new and Fortran work arrays of these runs drew on the library."
echo "Displacements and stresses, for ParaView or another VTK viewer:"
echo "  demo-output/beam-crt.vtu"
echo "The job by itself, with all its options:"
echo "  $program --help"
if [ -f demo-output/beam.html ]; then
    echo "Next, the memory of the recorded run over its events and by phase, in a browser:"
    echo "  xdg-open demo-output/beam.html"
fi
