#!/usr/bin/env bash
# Builds the sanitizer configuration and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake -S . -B build/test -DCMAKE_BUILD_TYPE=Debug -DVSK_SANITIZE=ON >/dev/null
cmake --build build/test -j"$(nproc)"
ctest --test-dir build/test --output-on-failure -j"$(nproc)" --timeout 300
