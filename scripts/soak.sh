#!/usr/bin/env bash
# Builds the release configuration and runs the soak of orvd (tools/vsk-soak) on a
# throwaway root. Arguments go to vsk-soak: --seconds N (default 180), --writers N,
# --interface-users N, --kill-every-ms N, --keep-root.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j"$(nproc)" --target orvd vsk-soak
exec build/release/tools/vsk-soak "$@"
