#!/usr/bin/env bash
# Builds lumo-bench (Release, with the OpenCV baseline) and runs it twice: with llvmpipe's 32-bit float
# evaluation (GALLIUM_OVERRIDE_CPU_CAPS=sse4.1, the exact values) and at the driver's default precision.
# Results go to build/bench/results-{fp32,default}.json and the console. Extra arguments go to lumo-bench,
# e.g. --benchmark_filter='1280x720'.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DLUMO_BUILD_BENCH=ON -DLUMO_BUILD_TESTS=OFF
cmake --build build/bench -j "$(nproc)" --target lumo-bench
bench=build/bench/bench/lumo-bench
echo "== 32-bit float evaluation (GALLIUM_OVERRIDE_CPU_CAPS=sse4.1)"
GALLIUM_OVERRIDE_CPU_CAPS=sse4.1 "$bench" --benchmark_out=build/bench/results-fp32.json \
  --benchmark_out_format=json "$@"
echo "== driver default precision"
env -u GALLIUM_OVERRIDE_CPU_CAPS "$bench" --benchmark_out=build/bench/results-default.json \
  --benchmark_out_format=json "$@"
