#!/bin/sh
# For git: a history with branches, merges, renames and tags under fixed dates, packed by two threads, cloned and
# checked. Prints object ids, which hold every byte of the history.
set -eu
export HOME="$PWD" GIT_CONFIG_NOSYSTEM=1 TZ=UTC LC_ALL=C
export GIT_AUTHOR_NAME=A GIT_AUTHOR_EMAIL=a@example.org GIT_COMMITTER_NAME=C GIT_COMMITTER_EMAIL=c@example.org
git init -q -b main tree
cd tree
git config pack.threads 2
git config gc.auto 0
git config gc.autoDetach false
i=0
while [ $i -lt 12 ]; do
    i=$((i + 1))
    export GIT_AUTHOR_DATE="2020-01-01T00:00:$((i + 10)) +0000" GIT_COMMITTER_DATE="2020-01-01T00:00:$((i + 10)) +0000"
    mkdir -p d$((i % 3))
    seq $i 3 600000 >d$((i % 3))/numbers
    seq $((i * 1000)) $((i * 1000 + 3000)) >d$((i % 3))/list$i
    [ $i -ne 7 ] || git mv d1/list1 d2/moved
    git add -A
    git commit -q -m "Step $i"
    [ $((i % 4)) -ne 0 ] || git tag -a -m "Mark $i" v$i
done
git checkout -q -b side v4
echo side >side.txt
git add side.txt
git commit -q -m Side
git checkout -q main
git merge -q -m Merge side
git repack -q -a -d -f --depth=20 --window=20
git gc -q --prune=now
git fsck --strict --no-progress
git log --graph --format='%H %T %s' --all
git diff --stat v4 main | tail -n 3
git blame -s d2/moved | tail -n 2
git rev-list --objects --all | sort | git hash-object --stdin
git clone -q --no-local . ../copy
git -C ../copy rev-parse HEAD 'HEAD^{tree}'
