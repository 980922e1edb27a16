#!/bin/sh
# A private Postfix instance as a mail exchanger on ADDRESS:25, delivering into maildirs below
# WORK/mail: MAILBOXES lists "address folder/" lines, and any other address of DOMAINS is unknown.
# Usage: postfix_exchanger.sh start WORK ADDRESS "DOMAINS" "MAILBOXES" | postfix_exchanger.sh stop WORK
# Exit status: 0 once Postfix is listening (or stopped), 77 when Postfix cannot run here, anything
# else on failure (what went wrong is on stderr).
command=$1 work=$2
if [ "$command" = stop ]; then
    postfix -c "$work/etc" stop >/dev/null 2>&1
    exit 0
fi
address=$3 domains=$4 mailboxes=$5
. "$(dirname "$0")/../support/postfix_instance.sh"
mkdir -p "$work/etc" "$work/mail" && chown postfix "$work/mail" 2>/dev/null || exit 77
printf '%s\n' "$mailboxes" > "$work/etc/mailboxes"
postfix_start "$work" "$address:25" <<CONF || exit 77
inet_interfaces = loopback-only
myhostname = mx.postfix.test
mydestination =
virtual_mailbox_domains = $domains
virtual_mailbox_maps = texthash:$work/etc/mailboxes
virtual_mailbox_base = $work/mail
virtual_uid_maps = static:$(id -u postfix 2>/dev/null)
virtual_gid_maps = static:$(id -g postfix 2>/dev/null)
# Mail from elsewhere is stored as it came: no Message-Id or Date added.
local_header_rewrite_clients =
CONF
tries=0
while [ $tries -lt 40 ]; do
    if python3 -c "import socket; socket.create_connection(('$address', 25), 1).close()" 2>/dev/null; then
        exit 0
    fi
    sleep 0.25
    tries=$((tries + 1))
done
cat "$work/maillog" >&2
postfix -c "$work/etc" stop >/dev/null 2>&1
exit 1
