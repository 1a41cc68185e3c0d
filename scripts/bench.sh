#!/usr/bin/env bash
# Builds the release configuration and runs every benchmark, each on its own throwaway root.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j"$(nproc)"
for b in build/release/bench/bench_*; do
  [ -x "$b" ] || continue
  echo "=== $(basename "$b")"
  "$b" "$@"
done
