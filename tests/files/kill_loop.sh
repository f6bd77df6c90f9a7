#!/bin/sh
# Kills renders and project saves at random moments and checks that the target is always the old file
# or the new one, whole, and that the next complete save leaves no temporary file behind.
# usage: kill_loop.sh VANTRELL-CLI [ROUNDS]
set -u
cli=$1
rounds=${2:-100}
dir=$(mktemp -d "${TMPDIR:-/tmp}/vantrell-kill-loop.XXXXXX")
trap 'rm -rf "$dir"' EXIT
fail() { echo "kill loop: $*" >&2; exit 1; }

# The lowest rate keeps a render short enough to be killed at any point of it many times over.
render="render --demo --rate 8000"
"$cli" $render -o "$dir/old.wav" --mono > /dev/null || fail "reference render failed"
"$cli" $render -o "$dir/new.wav" > /dev/null || fail "reference render failed"
"$cli" import --demo -o "$dir/new.qv" > /dev/null || fail "reference import failed"
cp "$dir/old.wav" "$dir/old.qv"
mkdir "$dir/work"

round=0
kept=0
replaced=0
while [ "$round" -lt "$rounds" ]; do
    if [ $((round % 2)) -eq 0 ]; then kind=wav; job="$render"; else kind=qv; job="import --demo"; fi
    target="$dir/work/target.$kind"
    cp "$dir/old.$kind" "$target"
    "$cli" $job -o "$target" > /dev/null 2>&1 &
    pid=$!
    # Up to 0.3 s: from before the file is opened to about when the save ends.
    sleep "$(awk -v seed="$$$round" 'BEGIN { srand(seed); printf "%.3f", rand() * 0.3 }')"
    kill -KILL "$pid" 2> /dev/null
    wait "$pid" 2> /dev/null
    if cmp -s "$target" "$dir/old.$kind"; then kept=$((kept + 1))
    elif cmp -s "$target" "$dir/new.$kind"; then replaced=$((replaced + 1))
    else fail "round $round: $target is neither the old nor the new file"; fi
    round=$((round + 1))
done

for kind in wav qv; do
    if [ "$kind" = wav ]; then job="$render"; else job="import --demo"; fi
    "$cli" $job -o "$dir/work/target.$kind" > /dev/null || fail "a complete save of target.$kind failed"
    cmp -s "$dir/work/target.$kind" "$dir/new.$kind" || fail "a complete save of target.$kind differs from the reference"
done
left=$(ls -A "$dir/work" | grep -v -x -e target.wav -e target.qv)
[ -z "$left" ] || fail "left behind after complete saves: $left"
echo "kill loop: $rounds saves killed: $kept left the old file, $replaced the new one, each whole"
