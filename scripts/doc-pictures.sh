#!/bin/sh
# Remakes the pictures in docs/pictures: records the example job, writes its page, and takes pictures of it in a
# browser without a window.
set -eu
cd "$(dirname "$0")/.."
. scripts/common.sh
no_arguments "$@"

need_build_packages
need_npm
need_browser_packages
need_packages pngquant
mkdir -p build
build linux elasticity elasticity_demo_mesh memtrack

folder=build/doc-pictures
rm -rf "$folder"
mkdir -p "$folder" docs/pictures
(
    cd "$folder"
    KXA_MEM_TRACK=1 ../linux/bin/elasticity --backend heap --tracking beam --quiet \
        ../linux/examples/elasticity/beam.msh
    ../linux/bin/memtrack html --quiet beam --output beam.html
)
/usr/bin/python3 scripts/page_pictures.py "$folder/beam.html" "$folder"
for picture in page page-dark; do
    pngquant --force --strip --quality 60-95 --output "docs/pictures/$picture.png" "$folder/$picture.png"
done
ls -l docs/pictures
