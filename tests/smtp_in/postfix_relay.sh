#!/bin/sh
# A private Postfix instance that relays one message through Postiq, then stops.
# Usage: postfix_relay.sh WORK RELAY_PORT LISTEN_PORT FROM TO < message
# Exit status: 0 once the message has left Postfix's queue, 77 when Postfix cannot start here,
# anything else on failure (what went wrong is on stderr).
work=$1 relay_port=$2 listen_port=$3 from=$4 to=$5
. "$(dirname "$0")/../support/postfix_instance.sh"
postfix_start "$work" "127.0.0.1:$listen_port" <<CONF || exit 77
inet_interfaces = 127.0.0.1
myhostname = postfix.test
mydestination =
relayhost = [127.0.0.1]:$relay_port
local_transport = error:no local mail
CONF
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
