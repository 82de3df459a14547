#!/usr/bin/env bash
# Runs each libFuzzer target of a fuzz build for a bounded time, seeded with the
# repository's corpus (fuzz/corpus/<target>/, never written to: what a run finds grows a
# corpus in the build directory, which later runs start from).  A crash, a hang (an
# input running longer than 10 s) or a broken check stops the target; its input is
# written to <build>/fuzz-findings/ and the script fails after the last target.
#   scripts/run-fuzzers.sh BUILD_DIR SECONDS TARGET...
set -uo pipefail
cd "$(dirname "$0")/.."
build_dir=$1
seconds=$2
shift 2
findings="$build_dir/fuzz-findings"
mkdir -p "$findings"
failed=()
printf '%-14s %10s %8s %8s %10s  %s\n' target executions exec/s coverage features result
for target in "$@"; do
    work="$build_dir/fuzz-corpus/$target"
    mkdir -p "$work"
    log="$build_dir/fuzz-$target.log"
    "$build_dir/fuzz/${target}_fuzzer" -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$findings/$target-" \
        "$work" "fuzz/corpus/$target" > "$log" 2>&1
    status=$?
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    last=$(grep -E '^#[0-9]+' "$log" | tail -1)
    coverage=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<< "$last")
    features=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<< "$last")
    result=ok
    if [ $status -ne 0 ]; then
        result="FOUND $(ls -t "$findings/$target-"* 2>/dev/null | head -1) (log: $log)"
        failed+=("$target")
    fi
    printf '%-14s %10s %8s %8s %10s  %s\n' "$target" "${executions:-?}" "${speed:-?}" \
        "${coverage:-?}" "${features:-?}" "$result"
done
if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzzing found inputs that break: ${failed[*]}; replay one with" \
         "$build_dir/fuzz/<target>_fuzzer <input>, fix it, and add it to fuzz/corpus/<target>/"
    exit 1
fi
