#!/usr/bin/env bash
# Runs a command (by default the test suite of build/) and fails when it
# created, changed or deleted anything in the places a configuration manager
# on a device would touch: /tmp, /var/log, /var/www, /etc/pki, /home, /root,
# and the message queues in /dev/mqueue.  Everything the suite does belongs
# inside its own temporary roots, which it removes again.
#
#   tools/check-no-leaks.sh                     # ctest in build/
#   tools/check-no-leaks.sh make test JOBS=2    # any command
#
# On a shared machine other people's work in /tmp shows up too; CI runs it
# on a machine of its own.  The system log daemon's journal is left out: it
# belongs to the system, not to the suite.
set -euo pipefail

cd "$(dirname "$0")/.."
if [ $# -eq 0 ]; then
    set -- ctest --test-dir build --output-on-failure -j "${JOBS:-$(nproc)}"
fi

WATCHED=(/tmp /var/log /var/www /etc/pki /home /root /dev/mqueue)

# One line per entry: path, type, size and (for all but directories, whose
# times change whenever an entry comes and goes) modification time.  The
# source tree itself is left out: a clone under /tmp holds the build
# directories the run writes to.
TOP=$(pwd -P)
snapshot() {
    local d
    for d in "${WATCHED[@]}"; do
        [ -e "$d" ] || continue
        find "$d" -xdev \( -path /var/log/journal -o -path "$TOP" \) -prune -o \
            \( -type d -printf '%p d\n' \) -o \( -printf '%p %y %s %T@\n' \) 2>/dev/null || true
    done | LC_ALL=C sort
}

# Kept in memory: a file for them would itself be a change.
before=$(snapshot)

status=0
"$@" || status=$?

after=$(snapshot)

# Entries that appeared or vanished always count.  A file under /tmp that
# merely grew or was touched counts only when it is one the library itself
# names (data files, the defaults lock); other writers on the machine (a CI
# runner's own log, say) append to files in /tmp while the suite runs.
report=$(python3 -c "$(cat <<'PY'
import sys
def parse(text):
    out = {}
    for line in text.splitlines():
        path, _, rest = line.rpartition(" d") if line.endswith(" d") else (None, None, None)
        if path is None:
            parts = line.rsplit(" ", 3)
            path, rest = parts[0], " ".join(parts[1:])
        out[path] = rest
    return out
b, a = parse(open(sys.argv[1]).read()), parse(open(sys.argv[2]).read())
ours = ("/tmp/CMF_", "/tmp/_LoadDefaultsAllLock_")
for p in sorted(set(b) - set(a)): print("  gone:    " + p)
for p in sorted(set(a) - set(b)): print("  new:     " + p)
for p in sorted(set(a) & set(b)):
    if a[p] != b[p] and (not p.startswith("/tmp/") or p.startswith(ours)):
        print("  changed: " + p)
PY
)" <(printf '%s\n' "$before") <(printf '%s\n' "$after"))
if [ -n "$report" ]; then
    echo "check-no-leaks: the run created, changed or deleted files outside its temporary roots:" >&2
    printf '%s\n' "$report" >&2
    exit 1
fi
echo "check-no-leaks: nothing outside the temporary roots was touched"
exit "$status"
