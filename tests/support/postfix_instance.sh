# Sourced by the test scripts that run a private Postfix instance.
# postfix_start WORK LISTEN: writes WORK/etc/main.cf (the settings every instance shares, then the
# caller's own lines from standard input) and WORK/etc/master.cf (Debian's services, out of any
# chroot, the SMTP server on LISTEN), then starts the instance. Returns 77 when Postfix cannot run
# here (not installed, no postfix user, not root).
postfix_start() {
    work=$1 listen=$2
    command -v postfix >/dev/null && [ -f /usr/share/postfix/master.cf.dist ] || return 77
    id postfix >/dev/null 2>&1 || return 77
    mkdir -p "$work/etc" "$work/spool" "$work/data" || return 77
    chown postfix "$work/data" 2>/dev/null || return 77
    {
        # Without its own log prefix an instance outside /var/spool/postfix refuses to start, and
        # without a syslog here it would say so nowhere.
        cat <<CONF
compatibility_level = 3.6
queue_directory = $work/spool
data_directory = $work/data
maillog_file = $work/maillog
maillog_file_prefixes = $work
inet_protocols = ipv4
alias_maps =
alias_database =
smtputf8_enable = no
biff = no
CONF
        cat
    } > "$work/etc/main.cf"
    awk -v listen="$listen" '
      /^#/ || NF < 8 { print; next }
      $1 == "smtp" && $2 == "inet" { $1 = listen }
      $2 ~ /^(inet|unix|fifo|pass|unix-dgram)$/ { $5 = "n" }
      { print }' /usr/share/postfix/master.cf.dist > "$work/etc/master.cf"
    postfix -c "$work/etc" check >/dev/null 2>&1
    postfix -c "$work/etc" start >/dev/null 2>&1 || return 77
}
