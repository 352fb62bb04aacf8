#!/bin/sh
# Checks built ELF files for the hardening the build asks for: full RELRO
# (a GNU_RELRO segment and immediate binding), the stack protector, and
# fortified libc calls.  Usage: check-hardening.sh FILE...
# Exit status 0 when every file has all of them; each gap is named.
set -u
READELF=${READELF:-readelf}
if ! command -v "$READELF" >/dev/null 2>&1; then
    echo "check-hardening: $READELF not found (apt-get install binutils)" >&2
    exit 2
fi
status=0
for f in "$@"; do
    gaps=""
    if [ ! -f "$f" ]; then
        gaps=" missing"
    else
        "$READELF" -lW "$f" | grep -q 'GNU_RELRO' || gaps="$gaps, no RELRO segment"
        "$READELF" -dW "$f" | grep -Eq '\(BIND_NOW\)|\(FLAGS_1\).* NOW|\(FLAGS\).*BIND_NOW' ||
            gaps="$gaps, not bound at load time (-z now)"
        syms=$("$READELF" --dyn-syms -W "$f")
        echo "$syms" | grep -q '__stack_chk_fail' || gaps="$gaps, no stack protector"
        echo "$syms" | grep -E '__[a-z0-9_]+_chk' | grep -vq '__stack_chk_fail' || gaps="$gaps, no fortified calls"
    fi
    if [ -n "$gaps" ]; then
        echo "check-hardening: $f:${gaps#,}" >&2
        status=1
    else
        echo "check-hardening: $f: ok"
    fi
done
exit $status
