#!/usr/bin/env bash
# Applies each fault of faults.txt to the source tree in turn, rebuilds in build-mutants, runs the
# suite (stopping at the first failure) and restores the file. Reports which faults no test caught.
# Usage: tests/mutants/run_mutants.sh [FAULT_NUMBER...]   (MUTANT_BUILD=DIR reuses an existing build dir)
set -u
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${MUTANT_BUILD:-$root/build-mutants}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || exit 1
cmake --build "$build" -j"${JOBS:-2}" >/dev/null || { echo "the unmodified tree does not build"; exit 1; }

# One fault per record: file, find, replace, description (records end at a blank line).
mapfile -t records < <(python3 - "$root/tests/mutants/faults.txt" <<'PY'
import sys
entries = [e.split("\n") for e in open(sys.argv[1]).read().split("\n\n")]
for e in entries:
    e = [l for l in e if not l.startswith("#")]
    if len(e) >= 4: print("\x1f".join(e[:4]))
PY
)
caught=0 missed=0 skipped=0 n=0
for record in "${records[@]}"; do
    n=$((n + 1))
    [[ $# -gt 0 && ! " $* " =~ " $n " ]] && continue
    IFS=$'\x1f' read -r file find replace what <<<"$record"
    path=$root/$file
    cp "$path" "$path.mutant-orig"
    if ! python3 -c 'import sys; p, f, r = sys.argv[1:]; s = open(p).read()
if f not in s: sys.exit(1)
open(p, "w").write(s.replace(f, r, 1))' "$path" "$find" "$replace"; then
        echo "$n not applied (text not found): $what"; skipped=$((skipped + 1)); rm "$path.mutant-orig"; continue
    fi
    if ! cmake --build "$build" -j"${JOBS:-2}" >/dev/null 2>&1; then
        result=caught; why="(does not build)"
    elif ctest --test-dir "$build" -j"${JOBS:-2}" --stop-on-failure --timeout 300 -L 'unit|gpu|tool|calib|gst' \
            >/dev/null 2>&1; then
        result=MISSED; why=""
    else
        result=caught; why=""
    fi
    mv "$path.mutant-orig" "$path"
    touch "$path"
    [[ $result == caught ]] && caught=$((caught + 1)) || missed=$((missed + 1))
    echo "$n $result $why: $what ($file)"
done
cmake --build "$build" -j"${JOBS:-2}" >/dev/null 2>&1
echo "caught $caught / $((caught + missed)) faults ($skipped not applied)"
