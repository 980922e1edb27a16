#!/usr/bin/env bash
# Installs what is missing, builds, then runs the whole test suite.
# POSTIQ_SANITIZE=1 builds it in build-sanitize/ with AddressSanitizer and UndefinedBehaviorSanitizer
# instead: any report fails the test that caused it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if [ "${POSTIQ_SANITIZE:-0}" = 1 ]; then
  build="$root/build-sanitize"
  cmake_options="-DPOSTIQ_SANITIZE=ON"
  export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1}
  export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
  export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/scripts/lsan.supp:print_suppressions=0}
fi
source "$root/scripts/setup.sh"
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 300
