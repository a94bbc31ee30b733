#!/usr/bin/env bash
# Fuzzes lumo-beautify's image decoding and raw frame reader with libFuzzer (clang, ASan + UBSan) for a
# bounded time each: LUMO_FUZZ_SECONDS (default 60). A crash fails the run and leaves its input in
# build/fuzz/artifacts; copy it into tests/fuzz/corpus/<image|raw> so that it replays in every test run.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${LUMO_FUZZ_SECONDS:-60}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" --target lumo_fuzz_image lumo_fuzz_raw_reader
mkdir -p build/fuzz/artifacts
for pair in image:image raw_reader:raw; do
  target=${pair%%:*} corpus=${pair##*:}
  work=build/fuzz/corpus-$target
  rm -rf "$work" && mkdir -p "$work" && cp tests/fuzz/corpus/"$corpus"/* "$work"/
  echo "fuzz: $target for $seconds s"
  log=build/fuzz/$target.log
  if ! ASAN_OPTIONS=detect_leaks=1 build/fuzz/tests/fuzz/lumo_fuzz_"$target" -max_total_time="$seconds" \
      -max_len=8192 -timeout=10 -rss_limit_mb=3072 -malloc_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix=build/fuzz/artifacts/"$target"- "$work" >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    echo "fuzz: $target found a failing input: $(ls build/fuzz/artifacts/"$target"-* 2>/dev/null)" >&2
    exit 1
  fi
  grep -E "stat::number_of_executed_units|stat::peak_rss_mb" "$log"
done
