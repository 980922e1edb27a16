#!/usr/bin/env bash
# Profiles the relay with perf while it accepts messages (20 sessions, delivery held) and while it
# delivers them to smtp-sink, and prints the top symbols of each (self time, all threads).
#
#   bench/profile.sh [messages]      (3000 by default; POSTIQ_BIN as for bench/run.sh)
#
# Runs in a network namespace of its own on loop-back, like bench/run.sh; needs root and perf.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
[ "$(id -u)" -eq 0 ] || { echo "bench/profile.sh: run as root" >&2; exit 1; }
command -v perf >/dev/null || { echo "bench/profile.sh: needs perf (Debian's linux-perf)" >&2; exit 1; }
if [ -z "${POSTIQ_BENCH_IN_NAMESPACE:-}" ] && command -v unshare >/dev/null; then
  exec unshare -n env POSTIQ_BENCH_IN_NAMESPACE=1 bash -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
fi

count=${1:-3000}
postiq=${POSTIQ_BIN:-$root/build/postiq}
work=${BENCH_WORK:-/var/tmp/postiq-profile}
port=2625 sink=127.0.0.3:2627
rm -rf "$work"
mkdir -p "$work/postiq"
pids=()
cleanup() {
  set +e
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
}
trap cleanup EXIT

wait_until() { # seconds command...
  local end=$(($(date +%s) + $1)); shift
  until "$@"; do [ "$(date +%s)" -ge "$end" ] && return 1; sleep 0.05; done
}
listening() { (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; }
queued() { find "$work/postiq/OutBox" -maxdepth 1 -type f ! -name '.*' | wc -l; }
outbox_empty() { [ "$(queued)" -eq 0 ]; }
ini() { printf 'ListenPort\t%s\r\nKeepLocal\t%s\r\nLaunchStart\tOn\r\nSmtpServer\t%s\r\n' "$port" "$1" "$sink" \
          > "$work/postiq/Postiq.ini"; }
# Records the relay's threads while the command runs.
profile() { # name command...
  local name=$1; shift
  perf record -q -F 1999 -g -p "$relay" -o "$work/$name.data" 2>/dev/null &
  local perf_pid=$!
  sleep 0.5
  "$@"
  kill -INT "$perf_pid"
  wait "$perf_pid" || true
  echo "== $name: top symbols (self)"
  perf report -i "$work/$name.data" --no-children --sort dso,sym -g none -q 2>/dev/null | head -25 || true
  echo "== $name: the relay's own functions, with all they call"
  perf report -i "$work/$name.data" --children --sort sym -g none -q 2>/dev/null | grep -F 'postiq::' | head -15 || true
  echo "== $name: by library"
  perf report -i "$work/$name.data" --no-children --sort dso -g none -q 2>/dev/null | head -12 || true
}

smtp-sink -u nobody -c "$sink" 1000 >/dev/null 2>&1 &
pids+=($!)
ini On
XDG_CONFIG_HOME="$work/xdg" "$postiq" --headless --folder "$work/postiq" >/dev/null 2>&1 &
relay=$!
pids+=("$relay")
wait_until 10 listening
accept() { smtp-source -d -s 20 -m "$count" -l 2048 -f bench@sender.example -t someone@receiver.example \
             -M bench.example "127.0.0.1:$port" >/dev/null; }
profile accept accept
deliver() {
  local t0
  ini Off
  "$postiq" --folder "$work/postiq" --reload >/dev/null
  "$postiq" --folder "$work/postiq" --flush >/dev/null
  t0=$(date +%s.%N)
  wait_until 600 outbox_empty
  awk -v n="$count" -v a="$t0" -v b="$(date +%s.%N)" 'BEGIN { printf "delivered %d in %.1f s (%.0f/s, under perf)\n", n, b - a, n / (b - a) }'
}
profile delivery deliver
"$postiq" --folder "$work/postiq" --quit >/dev/null || true
