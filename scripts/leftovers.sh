#!/usr/bin/env bash
# Lists what a test run may leave behind on the machine: System V queues,
# semaphores and shared-memory segments, POSIX shared memory, temporary
# directories and files of the tests, and running processes of this tree.
#
#   scripts/leftovers.sh snapshot FILE   writes the list to FILE
#   scripts/leftovers.sh check FILE      fails naming everything that is
#                                        there now and was not in FILE
set -euo pipefail

list() {
  # The key column of ipcs, for each kind.
  ipcs -q | awk '$1 ~ /^0x/ {print "message queue " $1}'
  ipcs -s | awk '$1 ~ /^0x/ {print "semaphore set " $1}'
  ipcs -m | awk '$1 ~ /^0x/ {print "System V shared memory " $1}'
  find /dev/shm -mindepth 1 -maxdepth 1 -printf 'POSIX shared memory /dev/shm/%f\n' 2>/dev/null || true
  find /tmp -mindepth 1 -maxdepth 1 \( -name 'kestrin*' -o -name 'Kes*' -o -name 'qrt*' \) \
       -printf 'temporary file /tmp/%f\n' 2>/dev/null || true
  ps -eo comm= | grep -E '^(kestrin|kestrin-log|spim_probe|log_hello)$' |
    sed 's/^/process /' | sort | uniq -c | awk '{print $2 " " $3 " (" $1 ")"}' || true
}

case "${1:-}" in
  snapshot)
    list | sort >"$2"
    ;;
  check)
    left=$(list | sort | comm -13 "$2" -)
    if [ -n "$left" ]; then
      echo "leftovers: the tests left these behind:" >&2
      echo "$left" >&2
      exit 1
    fi
    echo "leftovers: the tests left nothing behind"
    ;;
  *)
    echo "usage: $0 snapshot|check FILE" >&2
    exit 2
    ;;
esac
