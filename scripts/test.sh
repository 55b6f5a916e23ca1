#!/usr/bin/env bash
# Builds Kestrin and runs every test: once in a plain Release build, once under
# AddressSanitizer + UndefinedBehaviorSanitizer; the tests of the threaded
# parts (label "threads": the compression thread, the socket layer, the
# Agent and Master roles) also under ThreadSanitizer. Extra builds:
#   KESTRIN_TEST_TSAN=1  runs every test under ThreadSanitizer instead.
#   KESTRIN_TEST_QUICK=1 runs only the plain build.
# Last, every libFuzzer harness of fuzz/ runs for KESTRIN_FUZZ_SECONDS
# (default 60) in a clang build (build-fuzz, scripts/fuzz.sh); a finding fails
# the command. Skipped with KESTRIN_TEST_QUICK.
# Missing packages are installed first (as root: apt-get update, then
# apt-get install).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/dependencies.sh
need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
if [ -z "${KESTRIN_TEST_QUICK:-}" ]; then
  need_packages "${FUZZ_PACKAGES[@]}"
fi

jobs=${KESTRIN_JOBS:-2}
generator=()
command -v ninja >/dev/null 2>&1 && generator=(-G Ninja)

run_build() {
  local dir=$1 sanitize=$2 type=$3
  echo "=== ${dir}: ${type}${sanitize:+, sanitizers ${sanitize}}"
  cmake -S . -B "$dir" "${generator[@]}" -DCMAKE_BUILD_TYPE="$type" \
        -DKESTRIN_WERROR=ON -DKESTRIN_SANITIZE="$sanitize" >/dev/null
  cmake --build "$dir" -j"$jobs"
  ctest --test-dir "$dir" --output-on-failure -j"$jobs" --timeout 300
}

# Product code reaches the system only through the platform layer.
./scripts/check-platform-seam.sh

# What the machine holds before the tests: the run must add nothing to it.
before=$(mktemp /tmp/test-run-before.XXXXXX)
trap 'rm -f "$before"' EXIT
./scripts/leftovers.sh snapshot "$before"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

run_build build "" Release
# What `cmake --install` puts in place works: files, soname, pkg-config, the
# installed daemon and clients.
./scripts/check-install.sh build
# The manual pages lint clean and describe every option, key and function.
./scripts/check-man-pages.sh build
if [ -z "${KESTRIN_TEST_QUICK:-}" ]; then
  run_build build-asan address,undefined RelWithDebInfo
fi
if [ -n "${KESTRIN_TEST_TSAN:-}" ]; then
  run_build build-tsan thread RelWithDebInfo
elif [ -z "${KESTRIN_TEST_QUICK:-}" ]; then
  echo "=== build-tsan: the threaded parts under ThreadSanitizer"
  cmake -S . -B build-tsan "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DKESTRIN_WERROR=ON -DKESTRIN_SANITIZE=thread -DKESTRIN_BENCH=OFF >/dev/null
  cmake --build build-tsan -j"$jobs" --target zor_rolling_file_test zor_sockets_test \
        kestrin_agent_role_test kestrin_master_role_test
  ctest --test-dir build-tsan --output-on-failure -j"$jobs" --timeout 300 -L threads
fi
if [ -z "${KESTRIN_TEST_QUICK:-}" ]; then
  echo "=== build-fuzz: every fuzz harness for ${KESTRIN_FUZZ_SECONDS:-60} s"
  KESTRIN_JOBS=$jobs ./scripts/fuzz.sh --all "${KESTRIN_FUZZ_SECONDS:-60}"
fi

# No queue, semaphore, segment, temporary file or process of the tests is left.
./scripts/leftovers.sh check "$before"
