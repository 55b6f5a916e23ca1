#!/usr/bin/env bash
# Builds Kestrin and starts the daemon in the foreground on the bundled sample
# configuration under a private root.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j2
if [ ! -x build/bin/kestrin ]; then
  echo "run-sample: the daemon (build/bin/kestrin) is not built yet; only the libraries and their tests exist." >&2
  exit 1
fi
