#!/usr/bin/env bash
# Installs what is missing (the build's needs and the suite's peers), builds, then runs the whole
# test suite.
# POSTIQ_SANITIZE=1 builds it in build-sanitize/ with AddressSanitizer and UndefinedBehaviorSanitizer
# instead: any report fails the test that caused it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
with_test_peers=1
if [ "${POSTIQ_SANITIZE:-0}" = 1 ]; then
  skip_build=1
  source "$root/scripts/setup.sh"
  build="$root/build-sanitize"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPOSTIQ_SANITIZE=ON >/dev/null
  cmake --build "$build" -j "$(nproc)"
  export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1}
  export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
  export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/tests/leak_suppressions.txt:print_suppressions=0}
else
  source "$root/scripts/setup.sh"
  build="$root/build"
fi
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 300
