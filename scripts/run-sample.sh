#!/usr/bin/env bash
# Builds Kestrin, lays out a private root with the bundled sample
# configuration, and starts the daemon in the foreground under that root.
# No root privileges needed: every fixed path of the daemon is taken under
# KESTRIN_ROOT. Stop it with Ctrl-C.
#
#   KESTRIN_SAMPLE_ROOT=DIR  use DIR as the root (default: build/sample-root)
# Missing build packages are installed first (as root: apt-get update, then
# apt-get install).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/dependencies.sh
need_packages "${BUILD_PACKAGES[@]}"

generator=()
command -v ninja >/dev/null 2>&1 && generator=(-G Ninja)
# Benchmarks and tests are not built here: the daemon and the client only.
cmake -S . -B build "${generator[@]}" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j2 --target kestrin kestrin-log >/dev/null

root=${KESTRIN_SAMPLE_ROOT:-$PWD/build/sample-root}
mkdir -p "$root/kv/etc" "$root/kv/log" "$root/dev"
cp etc/Kestrin.conf etc/KestrinTaxonomy "$root/kv/etc/"
# The queue, the registration table and its semaphore are keyed on this file.
touch "$root/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH"
# Plain files stand in for the two LED devices: each LED change writes its
# state bytes into them.
touch "$root/dev/led0" "$root/dev/led1"

log=build/bin/kestrin-log
cat <<MSG
Kestrin runs under the private root $root
  logs:           $root/kv/log/   (system.log, alarms.systemlog, Kestrin.log, faultrecords.jsonl)
  configuration:  $root/kv/etc/Kestrin.conf, $root/kv/etc/KestrinTaxonomy
  LED devices:    $root/dev/led0, $root/dev/led1

In another shell, try:
  export KESTRIN_ROOT=$root
  $log -m demo -f demo.log -s warning "hello from the sample"
  tail $root/kv/log/system.log $root/kv/log/demo.log
(The sample configuration keeps notices and above in system.log; info and debug
lines reach only the module's own file.)
An event that the sample taxonomy turns into an alarm, a fault record and an LED change:
  $log -m demo -f demo.log -s warning -e 1001 "Disk usage above 90%"
  tail $root/kv/log/alarms.systemlog $root/kv/log/faultrecords.jsonl
  od -An -tx1 $root/dev/led1    # the state byte last written to LED 2 (0a: red, flashing)

Starting the daemon (Ctrl-C stops it)...
MSG
export KESTRIN_ROOT=$root
exec build/bin/kestrin
