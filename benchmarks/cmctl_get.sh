#!/usr/bin/env bash
# Wall time of 'cmctl get UNIT_NAME' against its floor: a minimal C program
# that links the library, starts it, prints the same variable and stops.
# Both are taken from a stripped install of the build and run against the
# same device tree.  Target: ratio at most 1.2.
#
#   benchmarks/cmctl_get.sh [BUILD] [--benchmark_format=json]
#
# Uses hyperfine when installed (apt-get install hyperfine), else a loop.
# CM_FLOOR_READONLY=1 gives the floor the read-only start the tool uses.
set -euo pipefail
build=${1:-build}
json=0
for a in "$@"; do [ "$a" = --benchmark_format=json ] && json=1; done
runs=${CMCTL_GET_RUNS:-300}

dir=$(mktemp -d /tmp/cm-bench.XXXXXX)
trap 'rm -rf "$dir"' EXIT
cmake --install "$build" --prefix "$dir/prefix" --strip >/dev/null
lib=$(dirname "$(find "$dir/prefix" -name 'libconfigmanager.so' | head -1)")
cat >"$dir/floor.c" <<'C'
#include <stdio.h>
#include <stdlib.h>
#include <configmanager/configmanager.h>
#include <configmanager/cm_host.h>
#include <configmanager/cm_tools.h>
int main(void) {
    char text[512];
    if (CM_Host_SetRootDirectory(getenv("CM_ROOT")) != 0) return 1;
    /* CM_FLOOR_READONLY set: the same read-only start as the tool's */
    if ((getenv("CM_FLOOR_READONLY") ? CM_Ext_InitReadOnly(0) : CM_initNoRegister()) != 0) return 1;
    if (CM_Get_Var_Value_As_String(UNIT_NAME, text) != 0) return 1;
    puts(text);
    CM_Exit();
    return 0;
}
C
cc -O2 -I"$dir/prefix/include" "$dir/floor.c" -L"$lib" -Wl,-rpath,"$lib" -lconfigmanager \
    -o "$dir/floor"
strip "$dir/floor"
root=$dir/root
"$dir/prefix/bin/cmctl" --root "$root" check --repair >/dev/null
export CM_ROOT=$root
floor_cmd="$dir/floor"
tool_cmd="$dir/prefix/bin/cmctl --root $root get UNIT_NAME"
[ "$($floor_cmd)" = "$($tool_cmd)" ] || { echo "the two programs print different values" >&2; exit 1; }

# Mean wall time of a command in microseconds.
measure() {
    if command -v hyperfine >/dev/null; then
        hyperfine -N --warmup 20 --runs "$runs" --export-json "$dir/h.json" "$1" >/dev/null 2>&1
        python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["results"][0]["median"] * 1e6)' "$dir/h.json"
    else
        local start end
        start=$(date +%s%N)
        for ((i = 0; i < runs; i++)); do $1 >/dev/null; done
        end=$(date +%s%N)
        echo $(((end - start) / runs / 1000))
    fi
}
floor=$(measure "$floor_cmd")
tool=$(measure "$tool_cmd")
ratio=$(python3 -c "print(round($tool / $floor, 3))")
if [ "$json" = 1 ]; then
    printf '{"benchmarks": [{"name": "cmctl get (vs minimal C program)", "real_time": %s, "time_unit": "us", "floor": %s, "ratio": %s, "target": 1.2}]}\n' \
        "$tool" "$floor" "$ratio"
else
    echo "cmctl get: ${tool} us, minimal C program: ${floor} us, ratio ${ratio} (target 1.2)"
fi
