#!/usr/bin/env bash
# Builds the fuzz targets with clang and libFuzzer in build-fuzz/ and runs each on its committed
# corpus. Usage: bench/fuzz.sh [runs per target] [target ...]   (default: 1000000, all targets)
# New inputs that reach new code are kept in a scratch copy of the corpus; a crash, a sanitizer
# report or an allocation past the limit stops the run with the input saved as crash-* / oom-*.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=${1:-1000000}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(queue_file hosts_dns dns_records configuration language inbound_session version_reply)

packages=(clang libclang-rt-14-dev cmake make pkg-config qt6-base-dev libldns-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=()
  [ "$(id -u)" -eq 0 ] || sudo=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo[@]}" apt-get -o DPkg::Lock::Timeout=600 update -qq
  "${sudo[@]}" apt-get -o DPkg::Lock::Timeout=600 install -y -qq "${missing[@]}"
fi

build="$root/build-fuzz"
CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPOSTIQ_FUZZ=ON -DPOSTIQ_TESTS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]/#/fuzz_}"

# The sanitizers stop at the first report; the leak check runs at the end of each target.
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
# Program folders on a memory file system: the readers sync what they write, and a disk would
# make that the cost of every input.
[ -w /dev/shm ] && export TMPDIR=${TMPDIR:-/dev/shm}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for target in "${targets[@]}"; do
  corpus="$work/$target"
  mkdir -p "$corpus"
  cp -r "$root/fuzz/corpus/$target/." "$corpus/" 2>/dev/null || true
  echo "== $target: $runs inputs"
  start=$(date +%s)
  # Inputs up to 4 KiB; no single allocation may pass 64 MB, nor the process 2 GB.
  (cd "$work" && "$build/fuzz/fuzz_$target" -runs="$runs" -max_len=4096 -malloc_limit_mb=64 -rss_limit_mb=2048 \
      -print_final_stats=1 "$corpus" 2>"$work/$target.log") || {
    tail -40 "$work/$target.log"
    echo "== $target FAILED" >&2
    exit 1
  }
  grep -E '^stat::(number_of_executed_units|peak_rss_mb)' "$work/$target.log" | sed "s/^/$target /"
  echo "== $target: done in $(( $(date +%s) - start )) s"
done
