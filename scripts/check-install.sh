#!/usr/bin/env bash
# Installs a build into a scratch prefix and checks what users of the
# installed tree rely on: the files and their places, the library's soname,
# a C client built through pkg-config alone, and the installed daemon and
# command-line client logging a line under a private root. The daemon runs
# in private IPC and mount namespaces (as root), so nothing of it outlives
# the check; the prefix and the root are removed at the end.
#
#   scripts/check-install.sh [BUILD_DIR]   (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
scratch=$(mktemp -d /tmp/kestrin-install.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build/CMakeCache.txt")
libdir=${libdir:-lib}

fail() { echo "check-install: $*" >&2; exit 1; }

for file in bin/kestrin bin/kestrin-log bin/kestrin-seqcheck "$libdir/libQrtShared.so.1" "$libdir/libQrtShared.so" \
            include/kestrin/QrtDiag.h "$libdir/pkgconfig/qrtshared.pc" \
            lib/systemd/system/kestrin.service lib/tmpfiles.d/kestrin.conf \
            lib/sysctl.d/60-kestrin.conf share/kestrin/Kestrin.conf share/kestrin/KestrinTaxonomy \
            share/man/man8/kestrin.8 share/man/man1/kestrin-log.1 share/man/man5/Kestrin.conf.5 \
            share/man/man5/KestrinTaxonomy.5 share/man/man3/libqrtshared.3; do
  [ -e "$prefix/$file" ] || fail "not installed: $file"
done
soname=$(readelf -d "$prefix/$libdir/libQrtShared.so.1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libQrtShared.so.1 ] || fail "soname is '$soname', not libQrtShared.so.1"
# Only the C API leaves the library: the Qrt* calls and the two segment names.
leaked=$(nm -D --defined-only "$prefix/$libdir/libQrtShared.so.1" | awk '{print $3}' |
         grep -vE '^(Qrt[A-Za-z]+|KesRegTableSharedMemoryName|KesSharedMemoryName)$' || true)
[ -z "$leaked" ] || fail "libQrtShared.so.1 exports more than its C API: $leaked"
grep -qx "kernel.msgmnb = 4194304" "$prefix/lib/sysctl.d/60-kestrin.conf" ||
  fail "the sysctl drop-in does not raise kernel.msgmnb"

# The unit, with its daemon where this check installed it: valid, and
# sandboxed to an exposure of 3.0 or less.
unit=$scratch/kestrin.service
sed "s|^ExecStart=[^ ]*|ExecStart=$prefix/bin/kestrin|" "$prefix/lib/systemd/system/kestrin.service" >"$unit"
systemd-analyze verify "$unit" || fail "systemd-analyze verify finds fault with the unit"
systemd-analyze security --offline=true --threshold=30 "$unit" >"$scratch/security.txt" ||
  fail "the unit's exposure is above 3.0: $(tail -1 "$scratch/security.txt")"

# A client built against the installed tree through pkg-config alone.
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
# shellcheck disable=SC2046
cc -Wall -Werror examples/log_hello.c $(pkg-config --cflags --libs qrtshared) \
   -o "$scratch/log_hello" || fail "examples/log_hello.c does not build through pkg-config"

# The installed daemon, the installed kestrin-log and the example, under a
# private root.
root=$scratch/root
mkdir -p "$root/kv/etc" "$root/kv/log" "$root/dev"
cp "$prefix/share/kestrin/Kestrin.conf" "$prefix/share/kestrin/KestrinTaxonomy" "$root/kv/etc/"
echo key >"$root/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH"
touch "$root/dev/led0" "$root/dev/led1"
if [ "$(id -u)" -ne 0 ] || ! unshare --ipc --mount true 2>/dev/null; then
  echo "check-install: installed files, soname and pkg-config build checked;" \
       "running the installed daemon needs root (private IPC and mount namespaces)"
  exit 0
fi
export KESTRIN_ROOT=$root PREFIX=$prefix LIBDIR=$libdir SCRATCH=$scratch
unshare --ipc --mount --propagation private sh -eu -c '
  mount -t tmpfs kestrin-shm /dev/shm
  export LD_LIBRARY_PATH=$PREFIX/$LIBDIR
  "$PREFIX/bin/kestrin" >"$SCRATCH/daemon.out" 2>&1 &
  daemon=$!
  for _ in $(seq 100); do
    grep -q "Configuration complete" "$SCRATCH/daemon.out" && break
    sleep 0.1
  done
  "$SCRATCH/log_hello" "hello from the installed example"
  "$PREFIX/bin/kestrin-log" -m cli -f cli.log -s warning "hello from the installed kestrin-log"
  for _ in $(seq 100); do
    grep -q "hello from the installed example" "$KESTRIN_ROOT/kv/log/hello.log" 2>/dev/null &&
      grep -q "hello from the installed kestrin-log" "$KESTRIN_ROOT/kv/log/cli.log" 2>/dev/null &&
      break
    sleep 0.1
  done
  "$PREFIX/bin/kestrin" stop >/dev/null
  wait "$daemon"
' || fail "the installed daemon did not run as expected: $(cat "$scratch/daemon.out" 2>/dev/null)"
grep -q "hello from the installed example" "$root/kv/log/hello.log" ||
  fail "the example's line is not in hello.log"
grep -q "hello from the installed kestrin-log" "$root/kv/log/cli.log" ||
  fail "kestrin-log's line is not in cli.log"
echo "check-install: the installed tree works (files, soname, pkg-config, daemon and clients)"
