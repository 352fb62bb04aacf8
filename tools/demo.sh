#!/usr/bin/env bash
# The library at work in a temporary device tree, driven by cmctl:
#   a master process, a watcher process printing changes as they happen, and
#   cmctl calls from a third process that set, refuse, export, reset,
#   import, show, damage, check, repair and salvage.
# Usage: tools/demo.sh BUILD_DIR   (make demo runs it).  DEMO_PAUSE=0 skips
# the pauses.  Everything happens under one temporary directory, removed at
# the end, whatever happens.
set -euo pipefail

BUILD=$(cd "${1:-build}" && pwd)
PAUSE=${DEMO_PAUSE:-1}
ROOT=$(mktemp -d "${TMPDIR:-/tmp}/cmctl-demo.XXXXXX")
PIDS=()

cleanup() {
    local pid
    for pid in "${PIDS[@]}"; do kill -INT "$pid" 2>/dev/null || true; done
    for pid in "${PIDS[@]}"; do wait "$pid" 2>/dev/null || true; done
    rm -rf "$ROOT"
}
trap cleanup EXIT

cmctl() { "$BUILD/cmctl" --root "$ROOT" "$@"; }
say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
run() { printf '$ cmctl %s\n' "$*"; cmctl "$@"; }
pause() { sleep "$PAUSE"; }

# Waits until the watcher has printed N lines, then shows the new ones.
watcher_saw() {
    wait_lines "$WATCH_LOG" "$1"
    sleep 0.2
    tail -n "+$((SHOWN + 1))" "$WATCH_LOG" | sed 's/^/   [watcher] /'
    SHOWN=$(wc -l <"$WATCH_LOG")
}

# Waits (at most 10 s) until FILE holds at least N lines.
wait_lines() {
    local file=$1 n=$2 i
    for ((i = 0; i < 100; i++)); do
        [ "$(wc -l <"$file" 2>/dev/null || echo 0)" -ge "$n" ] && return 0
        sleep 0.1
    done
    echo "demo: timed out waiting for $file" >&2
    return 1
}

say "1. A master process starts in an empty device tree: $ROOT"
"$BUILD/cmctl" --root "$ROOT" master 2>"$ROOT/master.log" &
PIDS+=($!)
wait_lines "$ROOT/master.log" 1
cat "$ROOT/master.log"
run check | sed -n '1,3s/^/   /p'
echo "   ..."
pause

say "2. A second process watches four variables"
WATCH_LOG="$ROOT/watch.log"
"$BUILD/cmctl" --root "$ROOT" watch UNIT_NAME MTU_VALUE IP4_SNMP_MGR CURRENT_FILE_TRANSFER_PASSWORD \
    >"$WATCH_LOG" 2>"$ROOT/watch.err" &
PIDS+=($!)
wait_lines "$ROOT/watch.err" 1
cat "$ROOT/watch.err"
SHOWN=0
pause

say "3. A third process sets a text, a number, an address and a password"
seen=0
for pair in "UNIT_NAME lab-gateway-3" "MTU_VALUE 1400" "IP4_SNMP_MGR 192.0.2.10" \
            "CURRENT_FILE_TRANSFER_PASSWORD s3cret"; do
    run set $pair
    seen=$((seen + 1))
    watcher_saw "$seen"
done
run get UNIT_NAME MTU_VALUE IP4_SNMP_MGR CURRENT_FILE_TRANSFER_PASSWORD
run get --reveal CURRENT_FILE_TRANSFER_PASSWORD
pause

say "4. Bad values are refused before anything is written"
run set MTU_VALUE 9000 || echo "   (exit status $?)"
run set UNIT_NAME "a-name-far-too-long-for-the-forty-three-characters-it-may-have" || echo "   (exit status $?)"
run set IP4_SNMP_MGR 192.0.2.300 || echo "   (exit status $?)"
pause

say "5. An export, then a reset to factory defaults"
run export "$ROOT/config.txt"
grep -E '^(UNIT_NAME|MTU_VALUE|IP4_SNMP_MGR|MAC1_ADDRESS) ' "$ROOT/config.txt" | sed 's/^/   /'
run defaults factory --yes
seen=$((seen + 4))
watcher_saw "$seen"
run show --changed
pause

say "6. Import checks every line first: one bad line, nothing written"
sed 's/^MTU_VALUE = .*/MTU_VALUE = 9000/' "$ROOT/config.txt" >"$ROOT/bad.txt"
run import "$ROOT/bad.txt" || echo "   (exit status $?)"
run import "$ROOT/config.txt"
seen=$((seen + 3))
watcher_saw "$seen"
run show --changed
pause

say "7. The processes stop; a data file is damaged by hand"
for pid in "${PIDS[@]}"; do kill -INT "$pid" 2>/dev/null || true; done
for pid in "${PIDS[@]}"; do wait "$pid" 2>/dev/null || true; done
PIDS=()
FILE="$ROOT/var/AppData/config/CMF_GeneralData"
printf '\x7f' | dd of="$FILE" bs=1 seek=7 conv=notrunc status=none
echo "   flipped byte 7 (the length of the first record) of $FILE"
run check || echo "   (exit status $?)"
pause

say "8. Reads of the other files still work; the damaged one is named"
run get MTU_VALUE
run get UNIT_NAME || echo "   (exit status $?)"
pause

say "9. check --repair -y: the master rewrites the file, keeping its bytes as .damaged"
run check --repair -y
run get UNIT_NAME
pause

say "10. salvage finds the values the rewrite reset, and puts them back"
run salvage
run salvage --apply
run get UNIT_NAME
echo
echo "Done; the temporary tree is removed."
