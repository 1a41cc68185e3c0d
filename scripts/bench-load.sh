#!/usr/bin/env bash
# The subscriber lifecycle benchmark: vsk-load in the release build with 2 workers at 1k,
# 16k and 256k live sessions, each beside its raw Berkeley DB replay, each run on a
# throwaway root of its own. Targets (printed, not asserted): at least 10,000 lifecycles/s
# with 2 workers; the library at most 1.3x raw Berkeley DB per step; the cost per lifecycle
# at 256k live sessions within 1.3x of that at 1k.
#
# On a shared machine one run says little: BENCH_LOAD_REPEAT=N runs each size N times and
# closes each size with the medians of the runs. Two costs are given: the mean (wall time
# of the run times its workers, per lifecycle: every time a worker lost its core counts)
# and the median (each step's median latency times its calls per lifecycle).
# Extra arguments go to every run (for example --sessions 100000, which replaces the
# script's own number of lifecycles).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j2 --target vsk-load orvd >/dev/null
load=build/release/tools/vsk-load
repeat=${BENCH_LOAD_REPEAT:-1}
# A length given among the extra arguments replaces the script's own.
own_length=1
for arg in "$@"; do
  case "$arg" in --sessions* | -n* | --duration* | -d*) own_length=0 ;; esac
done

# The median of the numbers on standard input, one a line.
median() {
  sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print "nan";
    else if (NR % 2) print v[(NR + 1) / 2]; else printf "%.2f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

declare -A cost median_cost
for live in 1000 16000 256000; do
  # Enough lifecycles that the store reaches its size and then turns over a good part of it.
  sessions=$(( live * 2 > 40000 ? live * 2 : 40000 ))
  length=()
  if ((own_length)); then length=(--sessions "$sessions"); else sessions="as given"; fi
  runs=""
  for ((run = 1; run <= repeat; ++run)); do
    echo "=== $live live sessions, $sessions lifecycles (run $run of $repeat)"
    out=$(env -u VSK_ROOT "$load" --workers 2 --live "$live" "${length[@]}" --baseline --quiet "$@")
    echo "$out"
    runs+=$(awk '
      /^lifecycles\/s:/ { rate = $2; cost = $6 }
      /^raw Berkeley DB:/ { for (i = 1; i <= NF; ++i) if ($i == "library/raw") { mean_ratio = $(i + 1) } }
      /^median lifecycle:/ { lib = $4; raw = $7; ratio = $NF }
      /^(create|activate|snapshot\+reads|remove) / { p50[$1] = $NF }
      END { gsub(/x/, "", mean_ratio); gsub(/x/, "", ratio); for (s in p50) gsub(/x/, "", p50[s]);
        printf "%s %s %s %s %s %s %s %s %s %s\n", rate, cost, mean_ratio, lib, raw, ratio,
               p50["create"], p50["activate"], p50["snapshot+reads"], p50["remove"] }' <<<"$out")
    runs+=$'\n'
  done
  col() { awk -v c="$1" 'NF { print $c }' <<<"$runs" | median; }
  cost[$live]=$(col 2)
  median_cost[$live]=$(col 4)
  echo "--- $live live sessions, medians of $repeat run(s): $(col 1) lifecycles/s;" \
       "cost per lifecycle $(col 2) us (library/raw $(col 3)x);" \
       "median lifecycle $(col 4) us, raw $(col 5) us (library/raw $(col 6)x);" \
       "median ratio per step: create $(col 7)x, activate $(col 8)x, snapshot+reads $(col 9)x," \
       "remove $(col 10)x"
done
awk -v a="${cost[1000]}" -v b="${cost[256000]}" -v ma="${median_cost[1000]}" \
    -v mb="${median_cost[256000]}" 'BEGIN {
  printf "cost per lifecycle: %.1f us at 1k live, %.1f us at 256k live: %.2fx (target <= 1.30x)\n",
         a, b, b / a
  printf "median lifecycle: %.1f us at 1k live, %.1f us at 256k live: %.2fx\n", ma, mb, mb / ma }'
