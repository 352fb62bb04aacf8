#!/usr/bin/env bash
# System calls a watching process makes per change and per watch pass, for
# the library's watcher and for the floor's, counted with strace -c.
#
#   benchmarks/syscalls_per_pass.sh [BUILD] [--benchmark_format=json]
#
# One watcher process is set up, strace attaches to all its threads, another
# process makes CHANGES changes 2 ms apart, and strace is stopped.  A pass is
# one read of the inotify descriptor.
set -euo pipefail
build=${1:-build}
json=0
for a in "$@"; do [ "$a" = --benchmark_format=json ] && json=1; done
bench=$build/benchmarks/notify_bench
changes=${CHANGES:-200}
command -v strace >/dev/null || { echo "strace missing: apt-get install strace" >&2; exit 1; }
[ -x "$bench" ] || { echo "$bench missing: make build" >&2; exit 1; }

dir=$(mktemp -d /tmp/cm-bench.XXXXXX)
trap 'rm -rf "$dir"' EXIT
mkdir -p "$dir/var/AppData/config" "$dir/tmp"
"$bench" --prepare "$dir"

# Prints "<calls per change> <reads per change>" for one kind of watcher.
count() {
    local kind=$1 out=$dir/strace.$1 fifo=$dir/fifo.$1 pid line
    mkfifo "$fifo"
    "$bench" --serve "$kind" "$dir" >"$fifo" &
    local server=$!
    read -r line <"$fifo"
    pid=${line#ready }
    strace -f -c -p "$pid" -o "$out" 2>/dev/null &
    local tracer=$!
    # Wait until every thread of the watcher is traced.
    for _ in $(seq 100); do
        ! grep -qs 'TracerPid:[[:space:]]*0$' /proc/"$pid"/task/*/status && break
        sleep 0.05
    done
    "$bench" --drive "$dir" "$changes"
    sleep 0.3
    kill -INT "$tracer"; wait "$tracer" || true
    kill "$pid" 2>/dev/null || true
    wait "$server" 2>/dev/null || true
    awk -v n="$changes" '
        $NF == "total" { total = $4 }
        $NF == "read" { reads = $4 }
        END { printf "%.2f %.2f\n", (total + 0) / n, (reads + 0) / n }' "$out"
}

read -r lib_calls lib_reads < <(count lib)
read -r floor_calls floor_reads < <(count floor)
if [ -z "${lib_reads:-}" ] || [ -z "${floor_reads:-}" ]; then
    echo "syscalls_per_pass: no counts from strace" >&2
    cat "$dir"/strace.* >&2 || true
    exit 1
fi
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", (b > 0 ? a / b : 0) }'; }
lib_pass=$(ratio "$lib_calls" "$lib_reads")
floor_pass=$(ratio "$floor_calls" "$floor_reads")
if [ "$json" = 1 ]; then
    cat <<JSON
{"benchmarks": [
  {"name": "syscalls/watcher, per pass", "real_time": $lib_pass, "time_unit": "calls", "floor": $floor_pass, "ratio": $(ratio "$lib_pass" "$floor_pass"), "target": 0},
  {"name": "syscalls/watcher, per change", "real_time": $lib_calls, "time_unit": "calls", "floor": $floor_calls, "ratio": $(ratio "$lib_calls" "$floor_calls"), "target": 0},
  {"name": "syscalls/watcher, passes per change", "real_time": $lib_reads, "time_unit": "passes", "floor": $floor_reads, "ratio": $(ratio "$lib_reads" "$floor_reads"), "target": 0}
]}
JSON
else
    printf '%-34s %10s %10s\n' "" library floor
    printf '%-34s %10s %10s\n' "system calls per pass" "$lib_pass" "$floor_pass"
    printf '%-34s %10s %10s\n' "system calls per change" "$lib_calls" "$floor_calls"
    printf '%-34s %10s %10s\n' "passes per change" "$lib_reads" "$floor_reads"
fi
