#!/usr/bin/env bash
# Runs every libFuzzer target of FUZZ_DIR for SECONDS each, seeded from the
# corpora kept under tests/fuzz-corpus/<target>/.  New inputs go to a
# scratch corpus in FUZZ_DIR, so the kept corpora change only by hand.  A
# crash leaves its input as FUZZ_DIR/crash-* and ends with a failure: keep
# that input under tests/fuzz-corpus/<target>/ once it is fixed.
#
#   tools/fuzz/run-fuzzers.sh FUZZ_DIR SECONDS
set -euo pipefail

if [[ $# -ne 2 ]]; then
    echo "usage: $0 FUZZ_DIR SECONDS" >&2
    exit 2
fi
dir=$(cd "$1" && pwd) seconds=$2
seeds=$(cd "$(dirname "$0")/../.." && pwd)/tests/fuzz-corpus
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

status=0
for target in restore_backup restore_filter tag_cache; do
    bin=$dir/${target}_fuzz
    [[ -x $bin ]] || { echo "run-fuzzers: $bin not built" >&2; exit 2; }
    work=$dir/corpus-$target
    mkdir -p "$work"
    echo "=== fuzzing $target for ${seconds}s"
    if ! (cd "$dir" && "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -max_len=65536 -print_final_stats=1 "$work" "$seeds/$target"); then
        echo "run-fuzzers: $target failed; its input is in $dir" >&2
        status=1
    fi
done
exit $status
