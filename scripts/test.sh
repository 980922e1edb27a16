#!/usr/bin/env bash
# Installs what is missing, builds, then runs the whole test suite.
# POSTIQ_SANITIZE=1 builds it in build-sanitize/ with AddressSanitizer and UndefinedBehaviorSanitizer
# instead: any report fails the test that caused it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# Real mail programs that the tests point at the relay; never needed to run it.
extra_packages=(msmtp swaks curl neomutt postfix python3)
# Postfix's package would otherwise set up and start a mail server of its own on port 25.
if ! dpkg-query -W -f='${Status}' postfix 2>/dev/null | grep -q 'install ok installed'; then
  echo "postfix postfix/main_mailer_type select No configuration" | debconf-set-selections 2>/dev/null || true
fi
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
