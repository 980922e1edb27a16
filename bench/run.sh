#!/usr/bin/env bash
# Measures Postiq's speed and memory, side by side with a private Postfix instance where a figure
# has a ratio, and prints one table: each figure, Postiq's value, Postfix's, the ratio, the target
# and whether it is met. Writes the table into bench/RESULTS.md (its own section only).
#
#   bench/run.sh [--quick] [--only FIGURES]
#     --quick: small counts, a smoke run of under two minutes
#     --only: a comma-separated list of the figures to measure (idle, accept, delivery, peaks,
#             latency, dispatch); the others are left blank. A partial run is never recorded.
#
# Everything runs on loop-back addresses inside a network namespace of its own, is started and
# stopped by this script, and every wait is bounded. Postfix runs as an instance of its own (its own
# configuration and queue under the work folder); its system service is never started. Needs root
# (Postfix's instance, the namespace); POSTIQ_BIN names a program already built, otherwise a
# release build is made in build-bench/.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
[ "$(id -u)" -eq 0 ] || { echo "bench/run.sh: run as root (Postfix's instance, the namespace)" >&2; exit 1; }

# A namespace of its own: no server of the bench ever meets one of another program on loop-back.
if [ -z "${POSTIQ_BENCH_IN_NAMESPACE:-}" ] && command -v unshare >/dev/null; then
  exec unshare -n env POSTIQ_BENCH_IN_NAMESPACE=1 bash -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
fi

quick=0 only=
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --only) only=${2:?--only needs a list of figures}; shift ;;
    *) echo "bench/run.sh: unknown option $1" >&2; exit 1 ;;
  esac
  shift
done
want() { [ -z "$only" ] || [[ ",$only," == *",$1,"* ]]; } # figure: is it measured in this run?
if [ "$quick" -eq 1 ]; then
  n_accept=300 n_deliver=300 n_deferred=2000 n_latency=5 big_mb=3 runs=2
else
  n_accept=3000 n_deliver=3000 n_deferred=50000 n_latency=20 big_mb=30 runs=3
fi
n_big=20

work=${BENCH_WORK:-/var/tmp/postiq-bench} # on disk: a tmpfs would make every flush free
postiq_port=2625
sink_addr=127.0.0.3 sink_port=2627       # smtp-sink: the delivery target
postfix_addr=127.0.0.4 postfix_port=2626
probe_addr=127.0.0.5 probe_port=2628     # the latency probe's own sink
dead_addr=127.0.0.6 dead_port=2629       # nothing listens: deliveries there are deferred
size=2048
from='bench@sender.example'
to='someone@receiver.example'

# ---- cleanup: stop what was started ----
pids=()
postiq_pid=
postfix_started=0
cleanup() {
  set +e
  [ -n "$postiq_pid" ] && kill "$postiq_pid" 2>/dev/null && wait "$postiq_pid" 2>/dev/null
  [ "$postfix_started" -eq 1 ] && postfix -c "$work/postfix/etc" stop >/dev/null 2>&1
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
}
trap cleanup EXIT

command -v smtp-source >/dev/null && command -v smtp-sink >/dev/null && command -v postfix >/dev/null \
  || { echo "bench/run.sh: needs Postfix and its smtp-source and smtp-sink (./scripts/test.sh installs them)" >&2; exit 1; }
postiq=${POSTIQ_BIN:-}
if [ -z "$postiq" ]; then
  cmake -S "$root" -B "$root/build-bench" -DCMAKE_BUILD_TYPE=Release -DPOSTIQ_TESTS=OFF >/dev/null
  cmake --build "$root/build-bench" -j "$(nproc)" --target postiq >/dev/null
  postiq=$root/build-bench/postiq
fi

rm -rf "$work"
mkdir -p "$work"
chmod 755 "$work"

# Every figure starts blank, so that one not measured prints as such.
rss_idle= p_accept= f_accept= p_deliver= f_deliver= big_idle= big_kept= big_receive= big_deliver=
p_p50= p_p99= p_max= p_lost= f_p50= f_p99= f_max= f_lost= d_start= d_idle= d_p50= d_p99= d_max= d_lost=

now() { date +%s.%N; }
load() { cut -d' ' -f1 /proc/loadavg; }
rate() { awk -v n="$1" -v a="$2" -v b="$3" 'BEGIN { printf "%.0f", n / (b - a) }'; }
max() { printf '%s\n' "$@" | sort -n | tail -1; }
wait_port() { # addr port
  for _ in $(seq 100); do (exec 3<>"/dev/tcp/$1/$2") 2>/dev/null && return 0; sleep 0.1; done
  echo "nothing listens on $1:$2" >&2; return 1
}
wait_until() { # seconds command...: true once the command succeeds, false when the time is out
  local end=$(($(date +%s) + $1)); shift
  until "$@"; do [ "$(date +%s)" -ge "$end" ] && return 1; sleep 0.05; done
}
# Accept rate: messages per second until the last reply, `sessions` at once.
accept() { # addr port sessions messages
  local t0
  t0=$(now)
  timeout 300 smtp-source -d -s "$3" -m "$4" -l "$size" -f "$from" -t "$to" -M bench.example "$1:$2" >/dev/null
  rate "$4" "$t0" "$(now)"
}
kb() { awk -v k="$2" '$1 == k":" { print $2 }' "/proc/$1/status"; }

smtp-sink -u nobody -c "$sink_addr:$sink_port" 1000 >/dev/null 2>&1 &
pids+=($!)
wait_port "$sink_addr" "$sink_port"

# ---- Postfix, an instance of its own, started first: the accept rates are measured in turns ----
pf=$work/postfix
mkdir -p "$pf/etc" "$pf/spool" "$pf/data"
chown postfix "$pf/data" # Postfix's own files: the master's lock and the caches
cat > "$pf/etc/main.cf" <<EOF
compatibility_level = 3.6
queue_directory = $pf/spool
data_directory = $pf/data
maillog_file = $pf/maillog
maillog_file_prefixes = $pf
# Postfix wants the address of an interface here, and loopback has only 127.0.0.1 as one; the
# SMTP server listens on the bench's own address and port all the same (master.cf below).
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
myhostname = bench.postfix.example
mydestination =
mynetworks = 127.0.0.0/8
relayhost = [$sink_addr]:$sink_port
alias_maps =
alias_database =
local_transport = error:no local mail
smtpd_relay_restrictions = permit_mynetworks, reject
# Every message is held once queued, so that queueing alone is measured; the delivery run
# releases them.
smtpd_client_restrictions = check_client_access static:HOLD
smtputf8_enable = no
biff = no
EOF
# Debian's services, out of any chroot, with the SMTP server on the bench's own address and port.
awk -v listen="$postfix_addr:$postfix_port" '
  /^#/ || NF < 8 { print; next }
  $1 == "smtp" && $2 == "inet" { $1 = listen }
  $2 ~ /^(inet|unix|fifo|pass|unix-dgram)$/ { $5 = "n" }
  { print }' /usr/share/postfix/master.cf.dist > "$pf/etc/master.cf"
if want accept || want delivery || want latency; then
  postfix -c "$pf/etc" check >/dev/null 2>&1 || true
  postfix -c "$pf/etc" start >/dev/null 2>&1
  postfix_started=1
  wait_port "$postfix_addr" "$postfix_port"
fi

# ---- Postiq ----
folder=
ini() { # KeepLocal [SmtpServer]
  {
    printf 'ListenPort\t%s\r\nKeepLocal\t%s\r\nLaunchStart\tOn\r\n' "$postiq_port" "$1"
    [ -n "${2:-}" ] && printf 'SmtpServer\t%s\r\n' "$2"
    true
  } > "$folder/Postiq.ini"
}
start_postiq() { # folder KeepLocal [SmtpServer]
  folder=$1
  mkdir -p "$folder"
  ini "$2" "${3:-}"
  XDG_CONFIG_HOME="$work/xdg" "$postiq" --headless --folder "$folder" >>"$work/postiq.out" 2>&1 &
  postiq_pid=$!
  wait_port 127.0.0.1 "$postiq_port"
}
stop_postiq() {
  timeout 20 "$postiq" --folder "$folder" --quit >/dev/null || kill "$postiq_pid"
  wait "$postiq_pid" || true
  postiq_pid=
}
control() { timeout 20 "$postiq" --folder "$folder" "$@" >/dev/null; }
files_in() { find "$folder/$1" -maxdepth 1 -type f ! -name '.*' 2>/dev/null | wc -l; }
outbox_empty() { [ "$(files_in OutBox)" -eq 0 ]; }
# Releases the held queue to smtp-sink; true once OutBox is empty (bounded by `seconds`). Sets
# `departed` to the moment the first message had left: the rate is that of the delivery itself,
# whatever starts it (the latency row measures how soon a message starts).
release_to_sink() { # seconds
  local before
  before=$(files_in OutBox)
  ini Off "$sink_addr:$sink_port"
  control --reload
  control --flush
  some_left() { [ "$(files_in OutBox)" -lt "$before" ]; }
  wait_until "$1" some_left || return 1
  departed=$(now)
  wait_until "$1" outbox_empty
}

if want idle || want accept || want delivery; then
echo "== Postiq and Postfix: accept and delivery (load $(load))"
start_postiq "$work/postiq" On
sleep 2
rss_idle=$(kb "$postiq_pid" VmRSS)
# Each side in turn, so that both meet the same load of the machine; the best run of each counts.
p_rates=() f_rates=()
if want accept; then
  for _ in $(seq "$runs"); do
    p_rates+=("$(accept 127.0.0.1 "$postiq_port" 20 "$n_accept")")
    f_rates+=("$(accept "$postfix_addr" "$postfix_port" 20 "$n_accept")")
  done
  p_accept=$(max "${p_rates[@]}") f_accept=$(max "${f_rates[@]}")
fi
echo "idle $rss_idle kB; accept, 20 sessions: Postiq ${p_rates[*]:-}/s, Postfix ${f_rates[*]:-}/s"
if want delivery; then
rm -rf "$folder/OutBox"/* # a queue of exactly n_deliver
smtp-source -d -s 20 -m "$n_deliver" -l "$size" -f "$from" -t "$to" -M bench.example "127.0.0.1:$postiq_port" >/dev/null
if release_to_sink 600; then p_deliver=$(rate $((n_deliver - 1)) "$departed" "$(now)"); else p_deliver=0; fi
fi
stop_postiq
if want delivery; then
pf_queued() { find "$pf/spool/hold" "$pf/spool/incoming" "$pf/spool/active" "$pf/spool/deferred" -type f | wc -l; }
pf_held_all() { [ "$(find "$pf/spool/hold" -type f | wc -l)" -ge "$n_deliver" ]; }
pf_empty() { [ "$(pf_queued)" -eq 0 ]; }
postsuper -c "$pf/etc" -d ALL >/dev/null 2>&1
smtp-source -d -s 20 -m "$n_deliver" -l "$size" -f "$from" -t "$to" -M bench.example "$postfix_addr:$postfix_port" >/dev/null
wait_until 120 pf_held_all || true
postsuper -c "$pf/etc" -H ALL >/dev/null 2>&1
postqueue -c "$pf/etc" -f >/dev/null 2>&1 || true
pf_some_left() { [ "$(pf_queued)" -lt "$n_deliver" ]; }
f_deliver=0
if wait_until 120 pf_some_left; then
  t0=$(now)
  wait_until 600 pf_empty && f_deliver=$(rate $((n_deliver - 1)) "$t0" "$(now)")
fi
echo "delivery: Postiq $p_deliver/s, Postfix $f_deliver/s"
fi
fi

if want peaks; then
echo "== Postiq, $n_big messages of $big_mb MB at once (load $(load))"
start_postiq "$work/big" On
sleep 2
big_idle=$(kb "$postiq_pid" VmRSS)
timeout 600 smtp-source -d -s "$n_big" -m "$n_big" -l $((big_mb * 1048576)) -f "$from" -t "$to" \
  -M bench.example "127.0.0.1:$postiq_port" >/dev/null || true
big_kept=$(files_in OutBox)
big_receive=$(($(kb "$postiq_pid" VmHWM) - big_idle))
echo 5 > "/proc/$postiq_pid/clear_refs" # the high-water mark starts again from here
if release_to_sink 600; then
  big_deliver=$(($(kb "$postiq_pid" VmHWM) - big_idle))
else
  big_deliver=
fi
stop_postiq
echo "idle $big_idle kB; $big_kept of $n_big kept; peak over idle: receiving $big_receive kB, delivering ${big_deliver:--} kB"
fi

if want latency; then
echo "== Postiq, latency (load $(load))"
start_postiq "$work/latency" Off "$probe_addr:$probe_port"
read -r p_p50 p_p99 p_max p_lost < <(timeout 900 python3 "$here/latency_probe.py" \
  "127.0.0.1:$postiq_port" "$probe_addr:$probe_port" "$n_latency" 30) || true
stop_postiq
echo "p50 $p_p50 ms, p99 $p_p99 ms, max $p_max ms, not arrived $p_lost"
fi

if want dispatch; then
echo "== Postiq, $n_deferred deferred (load $(load))"
# One message deferred for real (its server does not answer), then copied under fresh names: each
# copy is fresh, so none is due before the bench ends.
start_postiq "$work/deferred" Off "$dead_addr:$dead_port"
smtp-source -d -s 1 -m 1 -l "$size" -f "$from" -t "$to" -M bench.example "127.0.0.1:$postiq_port" >/dev/null
control --flush || true
deferred_one() { [ "$(files_in Deferred)" -ge 1 ]; }
wait_until 60 deferred_one || { echo "bench/run.sh: no message was deferred" >&2; exit 1; }
stop_postiq
python3 - "$folder/Deferred" "$n_deferred" <<'EOF'
import os, shutil, sys
folder, count = sys.argv[1], int(sys.argv[2])
queued = [n for n in os.listdir(folder) if not n.startswith(".")]  # the message, perhaps its notices
model = os.path.join(folder, queued[0])
for i in range(count - len(queued)):
    shutil.copyfile(model, os.path.join(folder, "BE%07X" % i))
EOF
t0=$(now)
start_postiq "$work/deferred" Off "$probe_addr:$probe_port"
d_start=$(awk -v a="$t0" -v b="$(now)" 'BEGIN { printf "%.0f", (b - a) * 1000 }')
sleep 2
d_idle=$(kb "$postiq_pid" VmRSS)
read -r d_p50 d_p99 d_max d_lost < <(timeout 600 python3 "$here/latency_probe.py" \
  "127.0.0.1:$postiq_port" "$probe_addr:$probe_port" 5 30) || true
d_left=$(files_in Deferred)
stop_postiq
rm -rf "$folder/Deferred" # the next run starts sooner without them to remove
echo "$d_left deferred; listening after $d_start ms, RSS $d_idle kB; dispatch p50 $d_p50 ms, max $d_max ms, not arrived $d_lost"
fi

if want latency; then
echo "== Postfix, latency (load $(load))"
# The same latency probe, with nothing held and the probe's sink as the relay host.
postconf -c "$pf/etc" -e "smtpd_client_restrictions =" "relayhost = [$probe_addr]:$probe_port"
postfix -c "$pf/etc" reload >/dev/null 2>&1
sleep 1
read -r f_p50 f_p99 f_max f_lost < <(timeout 900 python3 "$here/latency_probe.py" \
  "$postfix_addr:$postfix_port" "$probe_addr:$probe_port" "$n_latency" 30) || true
postfix -c "$pf/etc" stop >/dev/null 2>&1
postfix_started=0
echo "p50 $f_p50 ms, p99 $f_p99 ms, max $f_max ms, not arrived $f_lost"
fi

# ---- the table ----
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a != "" && b > 0) printf "%.2f×", a / b; else print "" }'; }
verdict() { awk -v ok="$1" 'BEGIN { print (ok ? "met" : "**MISSED**") }'; }
# The verdict of a figure, or "not measured" when this run left it out (--only).
result() { [ -z "$1" ] && echo "not measured" || verdict "$2"; }
at_most() { awk -v v="$1" -v t="$2" 'BEGIN { exit !(v != "" && v != "-" && v + 0 <= t) }' && echo 1 || echo 0; }
at_least() { awk -v v="$1" -v t="$2" 'BEGIN { exit !(v != "" && v + 0 >= t) }' && echo 1 || echo 0; }
mb() { [ -n "$1" ] && awk -v k="$1" 'BEGIN { printf "%.1f MB", k / 1024 }' || echo "-"; }
accept_ratio=$(awk -v a="$p_accept" -v b="$f_accept" 'BEGIN { print (b > 0 ? a / b : 0) }')
deliver_ratio=$(awk -v a="$p_deliver" -v b="$f_deliver" 'BEGIN { print (b > 0 ? a / b : 0) }')
latency_ok=$(($(at_most "$p_p50" 50) && $(at_most "$p_p99" 200) && ${p_lost:-1} == 0))
big_ok=$(awk -v r="$big_receive" -v k="$big_kept" -v n="$n_big" 'BEGIN { print (k == n && r <= 81920) }')
machine="$(nproc) cores, $(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo), $(awk '/MemTotal/ { printf "%.0f GB", $2 / 1048576 }' /proc/meminfo), $(. /etc/os-release; echo "$PRETTY_NAME"), $(df -T "$work" | awk 'NR == 2 { print $2 }') on $(df "$work" | awk 'NR == 2 { print $1 }')"
mode=$([ "$quick" -eq 1 ] && echo "QUICK run (small counts; not a measurement)" || echo "Full run")
[ -n "$only" ] && mode="$mode of $only only"
table=$(cat <<EOF
$mode of $(date -u '+%Y-%m-%d %H:%M UTC') on $(hostname): $machine; load average at the end $(cut -d' ' -f1-3 /proc/loadavg).
Postiq $("$postiq" --version 2>/dev/null | awk '{ print $2 }') ($(git -C "$root" rev-parse --short HEAD 2>/dev/null || echo '?')); Postfix $(postconf -d -h mail_version 2>/dev/null), a private instance. Load: smtp-source, $size-byte messages over 20 connections, one after another on each; accept rates are the best of $runs runs, Postiq's and Postfix's in turns.

| Figure | Postiq | Postfix | Ratio | Target | Result |
|---|---|---|---|---|---|
| accept-to-delivered latency, $n_latency messages one at a time, local sink | p50 $p_p50 ms, p99 $p_p99 ms$([ "$p_lost" != 0 ] && echo ", $p_lost not arrived") | p50 $f_p50 ms, p99 $f_p99 ms | | p50 ≤ 50 ms, p99 ≤ 200 ms | $(result "$p_p50" "$latency_ok") |
| accept, 20 sessions, $n_accept messages (msg/s) | $p_accept | $f_accept | $(ratio "$p_accept" "$f_accept") | ≥ 3× Postfix | $(result "$p_accept" "$(at_least "$accept_ratio" 3)") |
| delivery of $n_deliver queued messages to smtp-sink (msg/s) | $p_deliver | $f_deliver | $(ratio "$p_deliver" "$f_deliver") | ≥ 2× Postfix | $(result "$p_deliver" "$(at_least "$deliver_ratio" 2)") |
| dispatch of a new message with $n_deferred files already deferred (accept to sink, p50 of 5) | $d_p50 ms (max $d_max ms) | | | ≤ 100 ms | $(result "$d_p50" "$(($(at_most "$d_p50" 100) && ${d_lost:-1} == 0))") |
| idle resident memory, headless (VmRSS) | $(mb "$rss_idle") | | | ≤ 12 MB | $(result "$rss_idle" "$(at_most "$rss_idle" 12288)") |
| peak over idle while $n_big clients send $big_mb MB each at once (VmHWM − idle VmRSS) | +$(mb "$big_receive"), $big_kept of $n_big kept | | | ≤ +80 MB | $(result "$big_receive" "$big_ok") |
| peak over idle while those $n_big are delivered at once to smtp-sink | +$(mb "$big_deliver") | | | ≤ +80 MB | $(result "$big_receive" "$(at_most "$big_deliver" 81920)") |

Beside the table: the relay with $n_deferred files deferred listened $d_start ms after its start and idled at $(mb "$d_idle"); the idle size of the relay of the $big_mb MB run was $(mb "$big_idle").
EOF
)
echo
echo "$table"
[ "$quick" -eq 1 ] || [ -n "$only" ] && exit 0 # a smoke run or a partial one is never recorded
# Only this script's section is replaced; the others (profile, fuzzing, crash tests) are kept.
others=""
[ -f "$here/RESULTS.md" ] && others=$(awk '/^## / && !/^## Speed and memory/ { keep = 1 } /^## Speed and memory/ { keep = 0 } keep' "$here/RESULTS.md")
{
  echo "# Bench results"
  echo
  echo "## Speed and memory (\`bench/run.sh\`)"
  echo
  echo "Written by \`bench/run.sh\`; each full run replaces this section and keeps the others."
  echo
  echo "$table"
  [ -n "$others" ] && { echo; echo "$others"; }
} > "$here/RESULTS.md"
echo
echo "Written to $here/RESULTS.md"
