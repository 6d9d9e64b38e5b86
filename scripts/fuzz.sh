#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/targets (clang, AddressSanitizer and UndefinedBehaviorSanitizer)
# and runs each for a fixed time, one after the other. The inputs a run finds interesting are merged
# into fuzz/corpus/<target>/ (minimised with -merge=1), which the normal test suite replays.
#
#   scripts/fuzz.sh [seconds-per-target [target...]]      default: 60 seconds, every target
#
# A finding stops that target's run; its input is kept as build/fuzz/work/<target>/crash-* (or
# leak-*, timeout-*, oom-*) and the script exits with status 1 after the other targets have run.
source "$(dirname "$0")/lib.sh"

seconds=${1:-60}
shift || true

ensure_dependencies
cd "$PROJECT_ROOT"

log "building the fuzz targets"
cmake -S fuzz -B build/fuzz -DZM_LIBFUZZER=ON -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build/fuzz -j"$(nproc)" >/dev/null

if [ $# -gt 0 ]; then
    targets=("$@")
else
    targets=()
    for source in fuzz/targets/*.cpp; do
        targets+=("$(basename "$source" .cpp)")
    done
fi

# Every input is small: the targets derive their arrays from a few bytes per element.
options=(-timeout=10 -max_len=4096 -rss_limit_mb=2048 -print_final_stats=1)
max_files=300
summary=build/fuzz/summary.txt
printf '%-28s %8s %12s %8s %8s %8s %10s\n' target seconds executions cov ft files bytes > "$summary"
failed=0
for target in "${targets[@]}"; do
    binary=$PWD/build/fuzz/fuzz_$target
    corpus=$PWD/fuzz/corpus/$target
    work=$PWD/build/fuzz/work/$target
    [ -x "$binary" ] || { log "no such fuzz target: $target"; exit 1; }
    rm -rf "$work"
    mkdir -p "$corpus" "$work/new" "$work/merged"
    seeds=("$corpus")
    [ -d "fuzz/regressions/$target" ] && seeds+=("$PWD/fuzz/regressions/$target")

    log "fuzzing $target for ${seconds}s"
    status=0
    (cd "$work" && "$binary" "${options[@]}" -max_total_time="$seconds" -artifact_prefix="$work/" \
        "$work/new" "${seeds[@]}" > "$work/fuzz.log" 2>&1) || status=$?
    if [ $status -ne 0 ]; then
        log "$target: finding (exit status $status), see $work/fuzz.log"
        grep -E 'ERROR|FUZZ_CHECK|runtime error|SUMMARY' "$work/fuzz.log" | head -n 5 >&2 || true
        ls "$work" | grep -E '^(crash|leak|timeout|oom|slow-unit)-' >&2 || true
        failed=1
    fi

    # The corpus becomes the minimal set of stored and new inputs that keeps all their features
    # (edges and hit counts); when that is more than a few hundred files, the set that keeps their
    # edges.
    "$binary" -merge=1 "${options[@]}" "$work/merged" "$corpus" "$work/new" > "$work/merge.log" 2>&1
    if [ "$(find "$work/merged" -type f | wc -l)" -gt "$max_files" ]; then
        rm -rf "$work/merged" && mkdir "$work/merged"
        "$binary" -merge=1 -use_counters=0 "${options[@]}" "$work/merged" "$corpus" "$work/new" \
            >> "$work/merge.log" 2>&1
    fi
    rm -f "$corpus"/*
    cp "$work/merged"/* "$corpus"/ 2>/dev/null || true

    done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$work/fuzz.log" | tail -n 1 || true)
    executions=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$work/fuzz.log" | grep -o '[0-9]*$' || echo 0)
    cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<< "$done_line")
    ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<< "$done_line")
    files=$(find "$corpus" -type f | wc -l)
    bytes=$(find "$corpus" -type f -printf '%s\n' | awk '{s += $1} END {print s + 0}')
    printf '%-28s %8s %12s %8s %8s %8s %10s\n' "$target" "$seconds" "${executions:-0}" "${cov:--}" "${ft:--}" \
        "$files" "$bytes" | tee -a "$summary"
done
log "summary in $summary"
exit $failed
