#!/usr/bin/env bash
# Builds the target libraries of the 32-bit PowerPC leg (make test-ppc):
# libcrypto from Debian's openssl source package and GoogleTest from the
# sources that libgtest-dev ships in /usr/src/googletest, both with
# powerpc-linux-gnu-gcc, into a sysroot kept in a cache directory outside
# the source tree.  The cache entry is named after the openssl source
# version, the libgtest-dev version and the cross compiler's version, so a
# second run finds it at once.  An entry is built in a temporary directory
# and renamed into place only when complete; LINK is then made a symbolic
# link to it.
#
#   tools/be/build-ppc-sysroot.sh LINK        (e.g. build-ppc/sysroot)
#
# Cache directory: $CM_PPC_CACHE, else /var/cache/libconfigmanager-ppc when
# that can be written, else ~/.cache/libconfigmanager-ppc.  The openssl
# sources come through `apt-get source` with a private apt configuration
# (its own sources list, state and cache under the cache directory) that
# adds deb-src lines for the Debian suites the machine already uses; the
# machine's own apt configuration is not changed.
set -euo pipefail

TRIPLET=powerpc-linux-gnu
RECIPE=1        # raise when the build steps below change what they produce
JOBS=${JOBS:-2}

if [[ $# -ne 1 ]]; then
    echo "usage: $0 LINK" >&2
    exit 2
fi
LINK=$1

say() { echo "ppc-sysroot: $*"; }
die() { echo "ppc-sysroot: $*" >&2; exit 1; }

if [[ -n ${CM_PPC_CACHE:-} ]]; then
    CACHE=$CM_PPC_CACHE
elif mkdir -p /var/cache/libconfigmanager-ppc 2>/dev/null && [[ -w /var/cache/libconfigmanager-ppc ]]; then
    CACHE=/var/cache/libconfigmanager-ppc
else
    CACHE=${XDG_CACHE_HOME:-$HOME/.cache}/libconfigmanager-ppc
fi
mkdir -p "$CACHE"
CACHE=$(cd "$CACHE" && pwd)

for tool in $TRIPLET-gcc $TRIPLET-g++ apt-get dpkg-source cmake perl make; do
    command -v "$tool" >/dev/null || die "$tool not found (tools/install-deps.sh installs it)"
done
[[ -f /usr/src/googletest/CMakeLists.txt ]] || die "/usr/src/googletest missing (package libgtest-dev)"

# --- private apt configuration ---------------------------------------------
# deb-src twins of the machine's Debian entries for its own release, taken
# from both the one-line and the deb822 source formats.
APT=$CACHE/apt
CODENAME=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
[[ -n $CODENAME ]] || die "no VERSION_CODENAME in /etc/os-release"
mkdir -p "$APT/state/lists/partial" "$APT/cache/archives/partial" "$APT/parts"

deb_src_lines() {
    local f
    shopt -s nullglob
    for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [[ -f $f ]] || continue
        awk -v c="$CODENAME" '$1 == "deb" { s = $0; sub(/^deb/, "deb-src", s)
            for (i = 2; i <= NF; i++) if ($i ~ "^" c "(-updates|-security)?$") { print s; next } }' "$f"
    done
    for f in /etc/apt/sources.list.d/*.sources; do
        awk -v c="$CODENAME" '
            function flush() {
                if (types ~ /(^| )deb( |$)/ && uris != "" && suites != "") {
                    n = split(suites, s, " ")
                    for (i = 1; i <= n; i++)
                        if (s[i] ~ "^" c "(-updates|-security)?$")
                            printf "deb-src %s%s %s %s\n", opts, uris, s[i], comps
                }
                types = uris = suites = comps = opts = ""
            }
            /^[ \t]*$/ { flush(); next }
            /^#/ { next }
            { key = tolower($1); sub(/:$/, "", key); $1 = ""; sub(/^ +/, "") }
            key == "types" { types = $0 } key == "uris" { uris = $0 }
            key == "suites" { suites = $0 } key == "components" { comps = $0 }
            key == "signed-by" { opts = "[signed-by=" $0 "] " }
            END { flush() }' "$f"
    done
}

deb_src_lines | sort -u >"$APT/sources.list.new"
[[ -s $APT/sources.list.new ]] || die "no Debian $CODENAME entries in /etc/apt/sources.list*"
APT_OPTS=(
    -o "Dir::Etc::SourceList=$APT/sources.list"
    -o "Dir::Etc::SourceParts=$APT/parts"
    -o "Dir::State=$APT/state"
    -o "Dir::Cache=$APT/cache"
    -o "Dir::State::status=/var/lib/dpkg/status"
    -o "APT::Get::Only-Source=true"
)
# As root, apt hands downloads to its _apt user, which cannot write here.
[[ $(id -u) -ne 0 ]] || APT_OPTS+=(-o APT::Sandbox::User=root)

# The index is fetched once; a later run reads it without the network.
if ! cmp -s "$APT/sources.list.new" "$APT/sources.list" \
   || ! compgen -G "$APT/state/lists/*Sources*" >/dev/null; then
    mv "$APT/sources.list.new" "$APT/sources.list"
    say "fetching the source index for: $(awk '{print $(NF-1)}' "$APT/sources.list" | tr '\n' ' ')"
    apt-get "${APT_OPTS[@]}" -qq update
else
    rm -f "$APT/sources.list.new"
fi

# The openssl source versions the index offers, newest first (dpkg's order).
mapfile -t listed < <(apt-cache "${APT_OPTS[@]}" showsrc openssl 2>/dev/null \
    | awk '/^Package: /{p = $2} /^Version: / && p == "openssl" {print $2}' | sort -u)
VERSIONS=()
for v in "${listed[@]}"; do
    i=0
    while [[ $i -lt ${#VERSIONS[@]} ]] && dpkg --compare-versions "${VERSIONS[i]}" gt "$v"; do i=$((i + 1)); done
    VERSIONS=("${VERSIONS[@]:0:i}" "$v" "${VERSIONS[@]:i}")
done
[[ ${#VERSIONS[@]} -gt 0 ]] || die "no openssl source package in the index (see $APT/sources.list)"
GTEST_VERSION=$(dpkg-query -W -f='${Version}' libgtest-dev 2>/dev/null || echo unknown)
GCC_VERSION=$($TRIPLET-gcc -dumpfullversion)

key_of() {
    echo "openssl-$1-gtest-$GTEST_VERSION-gcc-$GCC_VERSION-r$RECIPE" | tr -c 'A-Za-z0-9.+_\n-' '_'
}
link_entry() {
    mkdir -p "$(dirname "$LINK")"
    ln -sfn "$1" "$LINK"
    say "sysroot $LINK -> $1"
}

# A finished entry for any of them is used as it stands.
for v in "${VERSIONS[@]}"; do
    if [[ -f $CACHE/$(key_of "$v")/.complete ]]; then
        say "cached: $(key_of "$v")"
        link_entry "$CACHE/$(key_of "$v")"
        exit 0
    fi
done

WORK=$(mktemp -d "$CACHE/.build.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
start=$SECONDS

# Otherwise the newest one the mirror can deliver (a mirror may list a
# version in its index whose files it does not hold).
OPENSSL_VERSION=
for v in "${VERSIONS[@]}"; do
    say "fetching openssl $v sources (apt-get source)"
    if (cd "$WORK" && apt-get "${APT_OPTS[@]}" -qq source "openssl=$v" >/dev/null); then
        OPENSSL_VERSION=$v
        break
    fi
    rm -rf "${WORK:?}"/*
done
[[ -n $OPENSSL_VERSION ]] || die "none of the openssl source versions could be fetched: ${VERSIONS[*]}"
KEY=$(key_of "$OPENSSL_VERSION")
ENTRY=$CACHE/$KEY
say "building $KEY (openssl $OPENSSL_VERSION, googletest $GTEST_VERSION, gcc $GCC_VERSION)"
ROOT=$WORK/sysroot
LIBDIR=$ROOT/usr/lib/$TRIPLET
mkdir -p "$LIBDIR" "$ROOT/usr/include"

# --- libcrypto ----------------------------------------------------------------
SRC=$(find "$WORK" -mindepth 1 -maxdepth 1 -type d -name 'openssl-*' | head -n1)
[[ -d $SRC ]] || die "apt-get source left no openssl-* directory"

# Static libcrypto only: the library uses the EVP cipher interface, so
# protocols, engines, loadable modules and most other algorithms are left out.
say "configuring openssl for linux-ppc"
(cd "$SRC" && ./Configure linux-ppc --cross-compile-prefix=$TRIPLET- \
    --prefix=/usr --openssldir=/usr/lib/ssl \
    no-shared no-module no-dso no-engine no-tests no-legacy \
    no-ui-console no-comp no-ct no-ocsp no-ts no-cms no-srp no-srtp \
    no-aria no-bf no-camellia no-cast no-idea no-mdc2 no-rc2 no-rc4 no-rc5 \
    no-seed no-sm2 no-sm3 no-sm4 no-whirlpool no-siphash \
    >"$WORK/configure.log" 2>&1) || { tail -n 30 "$WORK/configure.log" >&2; die "openssl configure failed"; }
say "building libcrypto.a (make -j$JOBS; the slow step)"
(cd "$SRC" && make -j"$JOBS" build_generated >"$WORK/make.log" 2>&1 \
    && make -j"$JOBS" libcrypto.a >>"$WORK/make.log" 2>&1) \
    || { tail -n 30 "$WORK/make.log" >&2; die "openssl build failed"; }
cp "$SRC/libcrypto.a" "$LIBDIR/"
mkdir -p "$ROOT/usr/include/openssl"
cp "$SRC"/include/openssl/*.h "$ROOT/usr/include/openssl/"
say "libcrypto done after $((SECONDS - start)) s"

# --- GoogleTest -------------------------------------------------------------
say "building GoogleTest $GTEST_VERSION from /usr/src/googletest"
cmake -S /usr/src/googletest -B "$WORK/gtest-build" \
    -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=powerpc \
    -DCMAKE_C_COMPILER=$TRIPLET-gcc -DCMAKE_CXX_COMPILER=$TRIPLET-g++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_GMOCK=OFF -DINSTALL_GTEST=ON \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib/$TRIPLET \
    >"$WORK/gtest.log" 2>&1 \
  && cmake --build "$WORK/gtest-build" -j "$JOBS" >>"$WORK/gtest.log" 2>&1 \
  && DESTDIR=$ROOT cmake --install "$WORK/gtest-build" >>"$WORK/gtest.log" 2>&1 \
  || { tail -n 30 "$WORK/gtest.log" >&2; die "GoogleTest build failed"; }

test -f "$LIBDIR/libcrypto.a"
test -f "$ROOT/usr/include/openssl/evp.h"
test -f "$ROOT/usr/include/openssl/configuration.h"
test -f "$LIBDIR/libgtest.a"
test -f "$LIBDIR/cmake/GTest/GTestConfig.cmake"
file -L "$LIBDIR/libgtest.a" >/dev/null

touch "$ROOT/.complete"
rm -rf "$ENTRY"
mv "$ROOT" "$ENTRY"
say "built $KEY in $((SECONDS - start)) s"
link_entry "$ENTRY"
