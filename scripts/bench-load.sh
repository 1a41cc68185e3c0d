#!/usr/bin/env bash
# The subscriber lifecycle benchmark: vsk-load in the release build with 2 workers at 1k,
# 16k and 256k live sessions, each beside its raw Berkeley DB replay, each run on a
# throwaway root of its own. Targets (printed, not asserted): at least 10,000 lifecycles/s
# with 2 workers; the library at most 1.3x raw Berkeley DB per step; the cost per lifecycle
# at 256k live sessions within 1.3x of that at 1k.
# Extra arguments go to every run (for example --sessions 100000).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j2 --target vsk-load orvd >/dev/null
load=build/release/tools/vsk-load
declare -A cost
for live in 1000 16000 256000; do
  # Enough lifecycles that the store reaches its size and then turns over a good part of it.
  sessions=$(( live * 2 > 40000 ? live * 2 : 40000 ))
  echo "=== $live live sessions, $sessions lifecycles"
  out=$(env -u VSK_ROOT "$load" --workers 2 --live "$live" --sessions "$sessions" --baseline \
        --quiet "$@")
  echo "$out"
  cost[$live]=$(sed -n 's/.*cost per lifecycle: \([0-9.]*\) us.*/\1/p' <<<"$out")
done
awk -v a="${cost[1000]}" -v b="${cost[256000]}" 'BEGIN {
  printf "cost per lifecycle: %.1f us at 1k live, %.1f us at 256k live: %.2fx (target <= 1.30x)\n",
         a, b, b / a }'
