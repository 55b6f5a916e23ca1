#!/usr/bin/env bash
# Builds (when needed) and runs the libFuzzer harnesses of fuzz/.
#
#   scripts/fuzz.sh HARNESS SECONDS   one harness, e.g. queue_record_fuzz 60
#   scripts/fuzz.sh --all SECONDS     every harness in turn
#   scripts/fuzz.sh --list            the harness names
#
# Each run starts from a copy of fuzz/corpus/HARNESS in a temporary
# directory (so the tree stays clean), uses fuzz/HARNESS.dict when present
# and ends with the run's figures (executions, executions per second). A
# finding stops the run: the crashing input is kept in the temporary
# directory, whose path is printed, and the script exits non-zero.
# Build directory: KESTRIN_FUZZ_BUILD (default build-fuzz); clang is needed.
set -euo pipefail
cd "$(dirname "$0")/.."

HARNESSES=(frame_parser_fuzz queue_record_fuzz role_record_fuzz data_file_fuzz word_fuzz)
build=${KESTRIN_FUZZ_BUILD:-build-fuzz}
jobs=${KESTRIN_JOBS:-2}

usage() {
  echo "usage: $0 HARNESS SECONDS | --all SECONDS | --list" >&2
  exit 2
}

configure() {
  [ -f "$build/CMakeCache.txt" ] && return 0
  local generator=()
  command -v ninja >/dev/null 2>&1 && generator=(-G Ninja)
  CC=clang CXX=clang++ cmake -S . -B "$build" "${generator[@]}" -DKESTRIN_FUZZ=ON \
    -DKESTRIN_SANITIZE=address,undefined -DKESTRIN_BENCH=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
}

run_one() {
  local name=$1 seconds=$2
  local work binary
  binary="$(cd "$build/bin" && pwd)/$name"
  work=$(mktemp -d "${TMPDIR:-/tmp}/kestrin_fuzz_run_XXXXXX")
  mkdir -p "$work/corpus" "$work/findings"
  [ -d "fuzz/corpus/$name" ] && cp -r "fuzz/corpus/$name/." "$work/corpus/"
  local options=(-max_total_time="$seconds" -print_final_stats=1 -close_fd_mask=1
                 -artifact_prefix="$work/findings/")
  [ -f "fuzz/$name.dict" ] && options+=(-dict="$PWD/fuzz/$name.dict")
  echo "=== $name: ${seconds} s"
  local status=0
  # The harness makes its private root under TMPDIR: inside the run's
  # directory, so that even a run that crashed leaves nothing elsewhere.
  (cd "$work" && TMPDIR="$work" ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1} \
     "$binary" "${options[@]}" corpus) >"$work/log" 2>&1 || status=$?
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)' "$work/log" || true
  if [ "$status" -ne 0 ]; then
    tail -n 60 "$work/log" >&2
    echo "$name: FINDING (exit $status); input and log kept in $work" >&2
    return 1
  fi
  rm -rf "$work"
}

[ $# -ge 1 ] || usage
case $1 in
  --list) printf '%s\n' "${HARNESSES[@]}"; exit 0 ;;
  --all) [ $# -eq 2 ] || usage; names=("${HARNESSES[@]}"); seconds=$2 ;;
  *) [ $# -eq 2 ] || usage; names=("$1"); seconds=$2 ;;
esac
[[ $seconds =~ ^[0-9]+$ ]] || usage
for name in "${names[@]}"; do
  [[ " ${HARNESSES[*]} " == *" $name "* ]] || { echo "unknown harness: $name" >&2; usage; }
done

configure
cmake --build "$build" -j"$jobs" --target "${names[@]}"
failed=0
for name in "${names[@]}"; do
  run_one "$name" "$seconds" || failed=1
done
exit "$failed"
