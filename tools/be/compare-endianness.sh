#!/usr/bin/env bash
# Shows that the data files are independent of the host's byte order and
# word size: runs the sample writer of the native build and of a big-endian
# cross build (s390x or 32-bit PowerPC) under qemu, each into a fresh root,
# and compares their output, every data file and the backup text byte for
# byte.
#
#   tools/be/compare-endianness.sh NATIVE_BUILD_DIR CROSS_BUILD_DIR
#
# Both build directories must hold tests/cm_write_sample; the cross build's
# emulator command (qemu and its options, the same ctest uses) is read from
# CROSS_BUILD_DIR/emulator.args.
set -euo pipefail

if [[ $# -ne 2 ]]; then
    echo "usage: $0 NATIVE_BUILD_DIR CROSS_BUILD_DIR" >&2
    exit 2
fi
NATIVE_BIN=$1/tests/cm_write_sample
BE_BIN=$2/tests/cm_write_sample
for f in "$NATIVE_BIN" "$BE_BIN"; do
    [[ -x $f ]] || { echo "compare-endianness: $f not built" >&2; exit 2; }
done
[[ -s $2/emulator.args ]] || { echo "compare-endianness: $2 is not a cross build (no emulator.args)" >&2; exit 2; }
mapfile -t EMULATOR <"$2/emulator.args"

WORK=$(mktemp -d "${TMPDIR:-/tmp}/cm-endian.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
mkdir "$WORK/le" "$WORK/be"

"$NATIVE_BIN" "$WORK/le" >"$WORK/le.out"
"${EMULATOR[@]}" "$BE_BIN" "$WORK/be" >"$WORK/be.out"

status=0
if ! cmp -s "$WORK/le.out" "$WORK/be.out"; then
    echo "compare-endianness: the two runs reported differently:" >&2
    diff "$WORK/le.out" "$WORK/be.out" >&2 || true
    status=1
fi

mapfile -t files < <(sed -n 's/^file //p' "$WORK/le.out")
if [[ ${#files[@]} -eq 0 ]]; then
    echo "compare-endianness: the sample writer listed no data files" >&2
    exit 1
fi
for f in "${files[@]}"; do
    le=$WORK/le$f be=$WORK/be$f
    if [[ ! -s $le || ! -s $be ]]; then
        echo "compare-endianness: $f missing or empty" >&2
        status=1
    elif ! cmp "$le" "$be"; then
        status=1
    fi
done

# The backup text of the configuration.
mapfile -t backups < <(sed -n 's/^backup //p' "$WORK/le.out")
for f in "${backups[@]}"; do
    if [[ ! -s $WORK/le$f ]] || ! cmp "$WORK/le$f" "$WORK/be$f"; then
        echo "compare-endianness: backup text $f differs or is missing" >&2
        status=1
    fi
done

# Nothing else may differ either (lock and marker files, caches).
if ! diff -rq "$WORK/le" "$WORK/be" >&2; then
    status=1
fi

if [[ $status -eq 0 ]]; then
    echo "compare-endianness: ${#files[@]} data files and ${#backups[@]} backup text identical with $2 ($(head -n1 "$WORK/le.out"))"
fi
exit $status
