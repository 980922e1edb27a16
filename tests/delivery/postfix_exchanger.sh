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
command -v postfix >/dev/null && [ -f /usr/share/postfix/master.cf.dist ] || exit 77
id postfix >/dev/null 2>&1 || exit 77
mkdir -p "$work/etc" "$work/spool" "$work/data" "$work/mail" || exit 77
chown postfix "$work/data" "$work/mail" 2>/dev/null || exit 77
printf '%s\n' "$mailboxes" > "$work/etc/mailboxes"
cat > "$work/etc/main.cf" <<CONF
compatibility_level = 3.6
queue_directory = $work/spool
data_directory = $work/data
maillog_file = $work/maillog
maillog_file_prefixes = $work
inet_interfaces = loopback-only
inet_protocols = ipv4
myhostname = mx.postfix.test
mydestination =
virtual_mailbox_domains = $domains
virtual_mailbox_maps = texthash:$work/etc/mailboxes
virtual_mailbox_base = $work/mail
virtual_uid_maps = static:$(id -u postfix)
virtual_gid_maps = static:$(id -g postfix)
alias_maps =
alias_database =
smtputf8_enable = no
# Mail from elsewhere is stored as it came: no Message-Id or Date added.
local_header_rewrite_clients =
biff = no
CONF
# Debian's services, out of any chroot, with the SMTP server on the address given.
awk -v listen="$address:25" '
  /^#/ || NF < 8 { print; next }
  $1 == "smtp" && $2 == "inet" { $1 = listen }
  $2 ~ /^(inet|unix|fifo|pass|unix-dgram)$/ { $5 = "n" }
  { print }' /usr/share/postfix/master.cf.dist > "$work/etc/master.cf"
postfix -c "$work/etc" check >/dev/null 2>&1
postfix -c "$work/etc" start >/dev/null 2>&1 || exit 77
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
