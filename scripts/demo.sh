#!/usr/bin/env bash
# Builds the release configuration and runs the demo on a throwaway root.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
# The demo starts the orvd daemon built beside it.
cmake --build build/release -j"$(nproc)" --target vsk-demo orvd
root=$(mktemp -d /tmp/vsk-demo.XXXXXX)
trap 'build/release/tools/vsk-demo --cleanup "$root" >/dev/null 2>&1 || true; rm -rf "$root"' EXIT
VSK_ROOT="$root" build/release/tools/vsk-demo
