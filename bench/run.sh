#!/usr/bin/env bash
# Measures Postiq side by side with Postfix and with smtp-sink (Postfix's in-memory test server,
# the ceiling of the SMTP dialogue on this machine), all driven by Postfix's smtp-source with 2 KB
# messages, one message per connection. Prints every figure and ratio, and writes the table into
# bench/RESULTS.md. Needs root (it installs Postfix); runs in about ten minutes.
#
# Postfix runs as an instance of its own (its own configuration and queue under the work folder)
# on a loop-back address and port of this script's; its system service is never started. Whatever
# the script installs or starts is stopped or put back when it ends.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
work=${BENCH_WORK:-/var/tmp/postiq-bench} # on disk: a tmpfs would make every flush free
postiq_port=2625
sink_addr=127.0.0.3
sink_port=2627
postfix_addr=127.0.0.4
postfix_port=2626
size=2048
from='bench@sender.example'
to='someone@receiver.example'

[ "$(id -u)" -eq 0 ] || { echo "bench/run.sh: run as root (it installs Postfix)" >&2; exit 1; }

# ---- cleanup: stop what was started, put back what was changed ----
created_policy=0
pids=()
postfix_started=0
cleanup() {
  set +e
  if [ -n "${postiq_pid:-}" ] && kill -0 "$postiq_pid" 2>/dev/null; then
    "$postiq" --folder "$work/postiq" --quit >/dev/null 2>&1 || kill "$postiq_pid"
    wait "$postiq_pid" 2>/dev/null
  fi
  [ "$postfix_started" -eq 1 ] && postfix -c "$work/postfix/etc" stop >/dev/null 2>&1
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
  [ "$created_policy" -eq 1 ] && rm -f /usr/sbin/policy-rc.d
}
trap cleanup EXIT

# ---- what the bench needs ----
if ! command -v smtp-source >/dev/null || ! command -v postfix >/dev/null; then
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\nexit 101\n' > /usr/sbin/policy-rc.d # no service starts while installing
    chmod +x /usr/sbin/policy-rc.d
    created_policy=1
  fi
  echo "postfix postfix/main_mailer_type select No configuration" | debconf-set-selections
  DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 update -qq
  DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends postfix
fi
for p in g++ cmake make pkg-config qt6-base-dev libldns-dev; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' \
    || DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -qq "$p"
done
# POSTIQ_BIN: a program already built (for instance build/postiq); otherwise a release build.
postiq=${POSTIQ_BIN:-}
if [ -z "$postiq" ]; then
  cmake -S "$root" -B "$root/build-bench" -DCMAKE_BUILD_TYPE=Release -DPOSTIQ_TESTS=OFF >/dev/null
  cmake --build "$root/build-bench" -j "$(nproc)" --target postiq >/dev/null
  postiq=$root/build-bench/postiq
fi

rm -rf "$work"
mkdir -p "$work"
chmod 755 "$work"

now() { date +%s.%N; }
rate() { awk -v n="$1" -v a="$2" -v b="$3" 'BEGIN { printf "%.0f", n / (b - a) }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }'; }
wait_port() { # addr port
  for _ in $(seq 100); do (exec 3<>"/dev/tcp/$1/$2") 2>/dev/null && return 0; sleep 0.1; done
  echo "nothing listens on $1:$2" >&2; return 1
}
# Accept rate: messages per second until the last reply, `sessions` at once.
accept() { # addr port sessions messages
  local t0 t1
  t0=$(now)
  smtp-source -d -s "$3" -m "$4" -l "$size" -f "$from" -t "$to" -M bench.example "$1:$2" >/dev/null
  t1=$(now)
  rate "$4" "$t0" "$t1"
}
queued() { find "$work/postiq/OutBox" -maxdepth 1 -type f ! -name '.*' | wc -l; }
rss_kb() { awk -v k="$2" '$1 == k":" { print $2 }' "/proc/$1/status"; }

# ---- smtp-sink, the ceiling and the delivery target ----
smtp-sink -u nobody -c "$sink_addr:$sink_port" 1000 >/dev/null 2>&1 &
pids+=($!)
wait_port "$sink_addr" "$sink_port"

# ---- Postiq ----
ini() { # KeepLocal [SmtpServer]
  {
    printf 'ListenPort\t%s\r\nKeepLocal\t%s\r\nLaunchStart\tOn\r\n' "$postiq_port" "$1"
    [ -n "${2:-}" ] && printf 'SmtpServer\t%s\r\n' "$2"
    true
  } > "$work/postiq/Postiq.ini"
}
start_postiq() {
  mkdir -p "$work/postiq"
  ini On
  POSTIQ_COMMIT_STATS="$work/commits.txt" XDG_CONFIG_HOME="$work/xdg" \
    "$postiq" --headless --folder "$work/postiq" >"$work/postiq.out" 2>&1 &
  postiq_pid=$!
  wait_port 127.0.0.1 "$postiq_port"
}
stop_postiq() {
  "$postiq" --folder "$work/postiq" --quit >/dev/null
  wait "$postiq_pid" || true
  postiq_pid=
}
# Delivery: the queue goes to the sink from the moment of the flush until `count` files are gone.
deliver_postiq() { # count
  local before t0 t1
  before=$(queued)
  ini Off "$sink_addr:$sink_port"
  "$postiq" --folder "$work/postiq" --reload >/dev/null
  t0=$(now)
  "$postiq" --folder "$work/postiq" --flush >/dev/null
  while [ $((before - $(queued))) -lt "$1" ]; do sleep 0.05; done
  t1=$(now)
  ini On
  "$postiq" --folder "$work/postiq" --reload >/dev/null
  rate "$1" "$t0" "$t1"
}

echo "== Postiq"
start_postiq
sleep 1
rss_idle=$(rss_kb "$postiq_pid" VmRSS)
# 99 sessions open at once, each greeted.
fds=()
for _ in $(seq 99); do
  exec {fd}<>"/dev/tcp/127.0.0.1/$postiq_port"
  read -r -t 5 _greeting <&"$fd" || true
  fds+=("$fd")
done
rss_99=$(rss_kb "$postiq_pid" VmRSS)
for fd in "${fds[@]}"; do exec {fd}>&-; done
p_accept1=$(accept 127.0.0.1 "$postiq_port" 1 1000)
p_accept4=$(accept 127.0.0.1 "$postiq_port" 4 2000)
p_accept20=$(accept 127.0.0.1 "$postiq_port" 20 3000)
rss_burst=$(rss_kb "$postiq_pid" VmRSS)
rss_peak=$(rss_kb "$postiq_pid" VmHWM)
rm -rf "$work/postiq/OutBox"/* # a delivery queue of exactly 3000
accept 127.0.0.1 "$postiq_port" 20 3000 >/dev/null
p_deliver=$(deliver_postiq 3000)
stop_postiq
commits=$(cat "$work/commits.txt")
per_flush=$(awk '{ printf "%.1f", $6 / $2 }' <<<"$commits")
echo "accept 1/4/20: $p_accept1 $p_accept4 $p_accept20 /s; delivery $p_deliver /s; files per flush $per_flush ($commits)"

echo "== Postiq with a long queue"
growth=()
for n in 1000 3000 10000; do
  rm -rf "$work/postiq"
  start_postiq
  accept 127.0.0.1 "$postiq_port" 20 "$n" >/dev/null
  a=$(accept 127.0.0.1 "$postiq_port" 20 1000)
  d=$(deliver_postiq 1000)
  stop_postiq
  growth+=("| $n | $a | $d |")
  echo "$n queued: accept $a /s, delivery $d /s"
done

# ---- smtp-sink as the ceiling ----
echo "== smtp-sink"
s_accept1=$(accept "$sink_addr" "$sink_port" 1 1000)
s_accept4=$(accept "$sink_addr" "$sink_port" 4 2000)
s_accept20=$(accept "$sink_addr" "$sink_port" 20 3000)
echo "accept 1/4/20: $s_accept1 $s_accept4 $s_accept20 /s"

# ---- Postfix, an instance of its own ----
echo "== Postfix"
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
postfix -c "$pf/etc" check >/dev/null 2>&1 || true
postfix -c "$pf/etc" start >/dev/null 2>&1
postfix_started=1
wait_port "$postfix_addr" "$postfix_port"
f_accept1=$(accept "$postfix_addr" "$postfix_port" 1 1000)
f_accept4=$(accept "$postfix_addr" "$postfix_port" 4 2000)
f_accept20=$(accept "$postfix_addr" "$postfix_port" 20 3000)
held() { find "$pf/spool/hold" "$pf/spool/incoming" "$pf/spool/active" "$pf/spool/deferred" -type f | wc -l; }
postsuper -c "$pf/etc" -d ALL >/dev/null 2>&1
accept "$postfix_addr" "$postfix_port" 20 3000 >/dev/null
while [ "$(find "$pf/spool/hold" -type f | wc -l)" -lt 3000 ]; do sleep 0.1; done
t0=$(now)
postsuper -c "$pf/etc" -H ALL >/dev/null 2>&1
postqueue -c "$pf/etc" -f >/dev/null 2>&1 || true
while [ "$(held)" -gt 0 ]; do sleep 0.05; done
t1=$(now)
f_deliver=$(rate 3000 "$t0" "$t1")
postfix -c "$pf/etc" stop >/dev/null 2>&1
postfix_started=0
echo "accept 1/4/20: $f_accept1 $f_accept4 $f_accept20 /s; delivery $f_deliver /s"

# ---- the table ----
machine="$(nproc) cores, $(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo), $(awk '/MemTotal/ { printf "%.0f GB", $2 / 1048576 }' /proc/meminfo), $(. /etc/os-release; echo "$PRETTY_NAME"), $(df -T "$work" | awk 'NR == 2 { print $2 }') on $(df "$work" | awk 'NR == 2 { print $1 }')"
table=$(cat <<EOF
Run of $(date -u '+%Y-%m-%d %H:%M UTC') on $(hostname): $machine.
Load: smtp-source, $size-byte messages, one message per connection. Postfix $(postconf -d -h mail_version 2>/dev/null).

| Figure | Postiq | Postfix | smtp-sink | Postiq / Postfix | Postiq / smtp-sink |
|---|---|---|---|---|---|
| accept, 1 session (msg/s) | $p_accept1 | $f_accept1 | $s_accept1 | $(ratio "$p_accept1" "$f_accept1") | $(ratio "$p_accept1" "$s_accept1") |
| accept, 4 sessions (msg/s) | $p_accept4 | $f_accept4 | $s_accept4 | $(ratio "$p_accept4" "$f_accept4") | $(ratio "$p_accept4" "$s_accept4") |
| accept, 20 sessions (msg/s) | $p_accept20 | $f_accept20 | $s_accept20 | $(ratio "$p_accept20" "$f_accept20") | $(ratio "$p_accept20" "$s_accept20") |
| delivery of 3000 to smtp-sink (msg/s) | $p_deliver | $f_deliver | | $(ratio "$p_deliver" "$f_deliver") | |

Group commit: $per_flush files per disk flush on average ($commits).

| Postiq memory, headless | RSS |
|---|---|
| idle | $((rss_idle / 1024)) MB ($rss_idle kB) |
| 99 sessions open | $((rss_99 / 1024)) MB ($rss_99 kB) |
| after the bursts | $((rss_burst / 1024)) MB ($rss_burst kB) |
| peak (VmHWM) | $((rss_peak / 1024)) MB ($rss_peak kB) |

| Files already queued | Postiq accept, 20 sessions, 1000 more (msg/s) | Postiq delivery of the first 1000 (msg/s) |
|---|---|---|
$(printf '%s\n' "${growth[@]}")
EOF
)
echo
echo "$table"
# Only this script's section is replaced; the others (fuzzing, crash tests) are kept.
others=""
[ -f "$here/RESULTS.md" ] && others=$(awk '/^## / && !/^## Speed and memory/ { keep = 1 } /^## Speed and memory/ { keep = 0 } keep' "$here/RESULTS.md")
{
  echo "# Bench results"
  echo
  echo "## Speed and memory (\`bench/run.sh\`)"
  echo
  echo "Written by \`bench/run.sh\`; each run replaces this section and keeps the others."
  echo
  echo "$table"
  [ -f "$here/NOTES.md" ] && { echo; cat "$here/NOTES.md"; }
  [ -n "$others" ] && { echo; echo "$others"; }
} > "$here/RESULTS.md"
echo
echo "Written to $here/RESULTS.md"
