#!/usr/bin/env bash
# Builds and runs every test, through the presets of CMakePresets.json: a Release build, then a Debug build
# with AddressSanitizer and UndefinedBehaviorSanitizer (and the debug GL checks on), then the thread tests
# under ThreadSanitizer, then a bounded libFuzzer run of the tool's input parsing (LUMO_FUZZ_SECONDS per
# target, default 60).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

cmake --preset release
cmake --build --preset release -j "$jobs"
ctest --preset release -j "$jobs"

cmake --preset asan
cmake --build --preset asan -j "$jobs"
# scripts/lsan.supp names what libraries keep for the life of the process (GLib at load time, libx265).
ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS="suppressions=$PWD/scripts/lsan.supp:print_suppressions=0" \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --preset asan -j "$jobs"

# The thread tests under ThreadSanitizer; scripts/tsan.supp names what it cannot see inside Mesa.
cmake --preset tsan
cmake --build --preset tsan -j "$jobs"
TSAN_OPTIONS="halt_on_error=1:suppressions=$PWD/scripts/tsan.supp" ctest --preset tsan

bash scripts/fuzz.sh
