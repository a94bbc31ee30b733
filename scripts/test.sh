#!/usr/bin/env bash
# Builds and runs every test: a Release build, then a Debug build with AddressSanitizer and
# UndefinedBehaviorSanitizer (and the debug GL checks on), then the thread tests under ThreadSanitizer, then
# a bounded libFuzzer run of the tool's input parsing (LUMO_FUZZ_SECONDS per target, default 60).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DLUMO_BUILD_BENCH=ON
cmake --build build/release -j "$jobs"
ctest --test-dir build/release --output-on-failure -j "$jobs"

cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=Debug -DLUMO_SANITIZE=address,undefined
cmake --build build/asan -j "$jobs"
# Mesa's driver keeps a few allocations for the life of the process; scripts/lsan.supp names them.
ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS="suppressions=$PWD/scripts/lsan.supp:print_suppressions=0" \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/asan --output-on-failure -j "$jobs"

# The thread tests under ThreadSanitizer; scripts/tsan.supp names what it cannot see inside Mesa.
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=Debug -DLUMO_SANITIZE=thread -DLUMO_BUILD_GST=OFF -DLUMO_BUILD_TOOLS=OFF
cmake --build build/tsan -j "$jobs" --target lumo_reliability_tests
TSAN_OPTIONS="halt_on_error=1:suppressions=$PWD/scripts/tsan.supp" \
  ctest --test-dir build/tsan --output-on-failure -R '^Threads\.'

bash scripts/fuzz.sh
