#!/bin/sh
# A private Postfix instance that relays one message through Postiq, then stops.
# Usage: postfix_relay.sh WORK RELAY_PORT LISTEN_PORT FROM TO < message
# Exit status: 0 once the message has left Postfix's queue, 77 when Postfix cannot start here,
# anything else on failure (what went wrong is on stderr).
work=$1 relay_port=$2 listen_port=$3 from=$4 to=$5
command -v postfix >/dev/null && [ -f /usr/share/postfix/master.cf.dist ] || exit 77
mkdir -p "$work/etc" "$work/spool" "$work/data" || exit 77
chown postfix "$work/data" 2>/dev/null || exit 77
cat > "$work/etc/main.cf" <<CONF
compatibility_level = 3.6
queue_directory = $work/spool
data_directory = $work/data
maillog_file = $work/maillog
maillog_file_prefixes = $work
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
myhostname = postfix.test
mydestination =
relayhost = [127.0.0.1]:$relay_port
alias_maps =
alias_database =
local_transport = error:no local mail
smtputf8_enable = no
biff = no
CONF
# Debian's services, out of any chroot, with the SMTP server on a port of its own.
awk -v listen="127.0.0.1:$listen_port" '
  /^#/ || NF < 8 { print; next }
  $1 == "smtp" && $2 == "inet" { $1 = listen }
  $2 ~ /^(inet|unix|fifo|pass|unix-dgram)$/ { $5 = "n" }
  { print }' /usr/share/postfix/master.cf.dist > "$work/etc/master.cf"
postfix -c "$work/etc" check >/dev/null 2>&1
postfix -c "$work/etc" start >/dev/null 2>&1 || exit 77
status=1
if sendmail -i -C "$work/etc" -f "$from" "$to"; then
    tries=0
    while [ $tries -lt 120 ]; do
        if postqueue -c "$work/etc" -p 2>/dev/null | grep -q "Mail queue is empty"; then
            status=0
            break
        fi
        sleep 0.25
        tries=$((tries + 1))
    done
fi
[ $status -eq 0 ] || { postqueue -c "$work/etc" -p >&2; cat "$work/maillog" >&2; }
postfix -c "$work/etc" stop >/dev/null 2>&1
exit $status
