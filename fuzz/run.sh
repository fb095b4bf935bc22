#!/usr/bin/env bash
# Runs each fuzz target for SECONDS on its seeds (and on what earlier runs
# found, kept in build/fuzz/found/TARGET). A crash, leak or timeout makes
# the script fail and leaves the input as build/fuzz/artifacts/*.
#   fuzz/run.sh SECONDS [BUILD_DIR] [extra libFuzzer flags...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
dir=${2:-build/fuzz}
shift $(( $# > 2 ? 2 : $# ))
status=0
mkdir -p "$dir/artifacts"
for target in decode encode api; do
  found="$dir/found/$target"
  mkdir -p "$found" "tests/regressions/$target"
  dict=()
  [ "$target" = decode ] && dict=(-dict=fuzz/jpeg.dict)
  echo "== ${target}_fuzzer for ${seconds}s"
  if ! "$dir/${target}_fuzzer" "$found" "$dir/seeds/$target" "tests/regressions/$target" \
        -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2560 -max_len=262144 \
        -artifact_prefix="$dir/artifacts/${target}-" -print_final_stats=1 "${dict[@]}" "$@" \
        > "$dir/${target}.log" 2>&1; then
    status=1
    echo "${target}_fuzzer FOUND A PROBLEM:"; grep -A40 -m1 'ERROR\|runtime error\|deadly signal\|timeout' "$dir/${target}.log" || tail -40 "$dir/${target}.log"
  fi
  grep -E 'stat::number_of_executed_units|stat::peak_rss_mb|cov:' "$dir/${target}.log" | tail -3
done
exit $status
