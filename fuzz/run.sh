#!/usr/bin/env bash
# A fuzzing campaign on one target: fuzz/run.sh TARGET MINUTES [--merge]
#
# TARGET is a folder of fuzz/corpus (open, bitstream, mp3_frame, mp3_tags,
# aac_gain, m4a_atoms, alac, pcm_chunks). Builds build-fuzz (clang,
# libFuzzer, ASan+UBSan) when the target's executable is missing or older
# than the sources, then fuzzes at the lowest priority on one core, starting
# from the committed corpus and the target's dictionary. New inputs collect
# in build-fuzz/work/TARGET; --merge afterwards adds to fuzz/corpus/TARGET
# only those that reach new coverage. Faults land in
# build-fuzz/findings/TARGET (crash-*, leak-*, timeout-*, oom-*).
#
# The limits are those the README promises: 2 s per input, 256 MB of
# memory, no single allocation above 256 MB; the whole-file target also
# refuses outputs above 16 MB itself. The time is wall-clock time: on a
# machine busy with other work the fuzzer, at the lowest priority, waits
# for a core, and KEL_FUZZ_TIMEOUT=SECONDS raises the limit so that waiting
# is not taken for a slow input (replay a timeout alone to tell).
set -euo pipefail

if [[ $# -lt 2 ]]; then
    echo "usage: fuzz/run.sh TARGET MINUTES [--merge]" >&2
    exit 2
fi
target=$1
minutes=$2
merge=${3:-}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KEL_FUZZ_BUILD:-$root/build-fuzz}
corpus=$root/fuzz/corpus/$target
[[ -d $corpus ]] || { echo "run.sh: no corpus folder $corpus" >&2; exit 2; }

case $target in
    open) dicts=(mp3 m4a pcm) ;;
    bitstream | mp3_frame | mp3_tags) dicts=(mp3) ;;
    aac_gain) dicts=(aac) ;;
    m4a_atoms) dicts=(m4a) ;;
    alac) dicts=(alac) ;;
    pcm_chunks) dicts=(pcm) ;;
    *) echo "run.sh: unknown target $target" >&2; exit 2 ;;
esac
exe=$build/fuzz/fuzz_$target

# Build (again) when the executable is older than any source; one build at
# a time, for campaigns that run side by side.
mkdir -p "$build"
exec 9>"$build/.build-lock"
flock 9
if [[ ! -x $exe ]] || [[ -n $(find "$root/src" "$root/fuzz" "$root/include" -newer "$exe" \
        \( -name '*.cpp' -o -name '*.h' -o -name CMakeLists.txt \) -print -quit) ]]; then
    if [[ ! -f $build/CMakeCache.txt ]]; then
        CC=clang CXX=clang++ nice -n 19 cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
            -DKEL_BUILD_FUZZ=ON -DKEL_BUILD_TESTS=OFF -DKEL_BUILD_BENCH=OFF -DKEL_BUILD_TOOLS=OFF >/dev/null
    fi
    nice -n 19 cmake --build "$build" -j2 --target "fuzz_$target" >/dev/null
fi
flock -u 9

work=$build/work/$target
findings=$build/findings/$target
logs=$build/logs
mkdir -p "$work" "$findings" "$logs"
dict=$build/work/$target.dict
for d in "${dicts[@]}"; do cat "$root/fuzz/dict/$d.dict"; done >"$dict"
log=$logs/$target-$(date +%Y%m%d-%H%M%S).log

# A small quarantine keeps the sanitizer's own memory inside the limit.
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=16:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
max_len=4096
[[ $target == open ]] && max_len=65536
[[ $target == m4a_atoms || $target == mp3_tags || $target == pcm_chunks ]] && max_len=20000

stamp=$work.start
touch "$stamp"
set +e
nice -n 19 "$exe" "$work" "$corpus" -dict="$dict" -max_total_time=$((minutes * 60)) -max_len=$max_len \
    -timeout="${KEL_FUZZ_TIMEOUT:-2}" -rss_limit_mb=256 -malloc_limit_mb=256 -print_final_stats=1 \
    -artifact_prefix="$findings/" >"$log" 2>&1
status=$?
set -e

# The figures: executions, their rate, coverage and features at the end.
execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
rate=$(sed -n 's/.*exec\/s: *\([0-9]*\).*/\1/p' "$log" | tail -1)
last=$(grep -E '^#[0-9]+' "$log" | tail -1 || true)
cov=$(sed -n 's/.* cov: *\([0-9]*\).*/\1/p' <<<"$last")
ft=$(sed -n 's/.* ft: *\([0-9]*\).*/\1/p' <<<"$last")
echo "target $target: ${minutes} min, ${execs:-?} execs, ${rate:-?} exec/s, cov ${cov:-?}, ft ${ft:-?}, exit $status"
echo "log: $log"
found=$(find "$findings" -type f -newer "$stamp" | wc -l)
echo "findings: $found new in $findings"
if [[ $status -ne 0 ]]; then
    grep -E 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error|invariant broken|SUMMARY' "$log" | head -5
fi

if [[ $merge == --merge ]]; then
    before=$(find "$corpus" -type f | wc -l)
    # Committed inputs stay below 20 KB: longer ones are cut there.
    nice -n 19 "$exe" -merge=1 -max_len=$((max_len < 20000 ? max_len : 20000)) -timeout=2 -rss_limit_mb=256 \
        "$corpus" "$work" \
        >"$logs/$target-merge.log" 2>&1
    echo "merged: $before -> $(find "$corpus" -type f | wc -l) files in $corpus"
fi
exit $status
