#!/usr/bin/env bash
# Checks the two Debian packages without installing them on this machine: builds them from a
# configured build folder (or takes the .deb files given), runs lintian on both, unpacks them into
# a scratch root, then runs there the commands of the systemd unit and of the desktop entry, each
# against a relay that must accept a message, answer --reload and end cleanly, and the packaged
# sendmail and mailq links.
#
#   check_package.sh BUILD_DIR [PACKAGE.deb MTA_PACKAGE.deb]
set -euo pipefail

build=$(cd "$1" && pwd)
scratch=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
  rm -rf "$scratch"
}
trap cleanup EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

if [ $# -ge 3 ]; then
  deb=$2
  mta=$3
else
  cpack --config "$build/CPackConfig.cmake" -G DEB -B "$scratch/out" >/dev/null
  deb=$(ls "$scratch"/out/postiq_*.deb)
  mta=$(ls "$scratch"/out/postiq-mta_*.deb)
fi

# --- Lint: no error and no warning on either -----------------------------------------------------
if command -v lintian >/dev/null; then
  # Informational tags and overrides aside, every line it prints is an error or a warning.
  lint=$(lintian --allow-root --tag-display-limit 0 "$deb" "$mta" 2>&1 | grep -E '^[EW]: ' || true)
  [ -z "$lint" ] || fail "lintian:
$lint"
else
  echo "lintian is not installed: the packages are not linted" >&2
fi

# --- What the package holds ---------------------------------------------------------------------
contents=$(dpkg-deb -c "$deb")
for path in ./usr/bin/postiq ./usr/lib/systemd/system/postiq.service \
            ./usr/share/applications/postiq.desktop ./usr/share/man/man1/postiq.1.gz \
            ./usr/share/icons/hicolor/scalable/apps/postiq.svg ./usr/share/doc/postiq/changelog.Debian.gz \
            ./usr/share/doc/postiq/copyright; do
  grep -q " $path\$" <<<"$contents" || fail "the package lacks $path"
done
grep -v '^d' <<<"$contents" | grep -qv ' root/root ' && fail "a file not owned by root"
for script in postinst prerm postrm; do
  dpkg-deb -I "$deb" "$script" >/dev/null || fail "the package lacks its $script"
done
depends=$(dpkg-deb -f "$deb" Depends)
for library in adduser libqt6core6 libldns; do
  grep -q "$library" <<<"$depends" || fail "Depends lacks $library: $depends"
done

# postiq-mta: the links, their pages, the folder they queue into, and the fields that make it the
# system's one mail transport agent.
mta_contents=$(dpkg-deb -c "$mta")
for link in "./usr/sbin/sendmail -> ../bin/postiq" "./usr/bin/mailq -> postiq" \
            "./usr/lib/sendmail -> ../sbin/sendmail"; do
  grep -qF " $link" <<<"$mta_contents" || fail "postiq-mta lacks the link $link"
done
for path in ./usr/share/man/man8/sendmail.8.gz ./usr/share/man/man1/mailq.1.gz ./etc/postiq/sendmail.conf \
            ./usr/lib/systemd/system/postiq.service.d/drop-box.conf \
            ./usr/share/doc/postiq-mta/copyright ./usr/share/doc/postiq-mta/changelog.Debian.gz; do
  grep -q " $path\$" <<<"$mta_contents" || fail "postiq-mta lacks $path"
done
grep -v '^d' <<<"$mta_contents" | grep -qv ' root/root ' && fail "a file of postiq-mta not owned by root"
field() { dpkg-deb -f "$mta" "$1"; }
[ "$(field Architecture)" = all ] || fail "postiq-mta is not Architecture: all"
for name in Provides Conflicts Replaces; do
  [ "$(field "$name")" = mail-transport-agent ] || fail "postiq-mta's $name is not mail-transport-agent"
done
[ "$(field Depends)" = "postiq (= $(dpkg-deb -f "$deb" Version))" ] || fail "postiq-mta's Depends: $(field Depends)"
for script in postinst postrm conffiles; do
  dpkg-deb -I "$mta" "$script" >/dev/null || fail "postiq-mta lacks its $script"
done

rootfs="$scratch/root"
dpkg-deb -x "$deb" "$rootfs"
dpkg-deb -x "$mta" "$rootfs"
bin="$rootfs/usr/bin/postiq"
[ "$("$bin" --version)" = "Postiq 3.0" ] || fail "the installed program does not say its version"

if command -v man >/dev/null; then
  man -l "$rootfs/usr/share/man/man1/postiq.1.gz" 2>/dev/null | grep -q 'postiq - mail relay for the desktop' ||
    fail "man -l does not show the page"
  for page in man1/postiq.1.gz man8/sendmail.8.gz man1/mailq.1.gz; do
    warnings=$(man --warnings -l "$rootfs/usr/share/man/$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "the manual page $page has warnings: $warnings"
  done
fi
if command -v desktop-file-validate >/dev/null; then
  desktop-file-validate "$rootfs/usr/share/applications/postiq.desktop" || fail "the desktop entry is not valid"
fi

# --- A relay run as installed -------------------------------------------------------------------
free_port() {
  local port
  for _ in $(seq 200); do
    port=$((20000 + RANDOM % 12000))
    if ! (exec 9<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      echo "$port"
      return
    fi
  done
  fail "no free port"
}

# A program folder that keeps its mail (no delivery, so no DNS and no internet) on a free port.
prepare_folder() { # FOLDER PORT
  mkdir -p "$1"
  printf 'ListenPort\t%s\r\nKeepLocal\tOn\r\n' "$2" >"$1/Postiq.ini"
}

# Waits for the relay's greeting on the port, then sends one message; the relay must accept it.
send_mail() { # PORT
  local line
  for _ in $(seq 100); do
    if exec 3<>"/dev/tcp/127.0.0.1/$1"; then break; fi 2>/dev/null
    sleep 0.1
  done
  expect() {
    while IFS= read -r -t 10 line <&3; do
      line=${line%$'\r'}
      case "$line" in "$1"-*) continue ;; "$1 "*) return ;; esac
      fail "the relay said '$line' where $1 was expected"
    done
    fail "no $1 reply from the relay"
  }
  expect 220
  printf 'HELO check\r\n' >&3; expect 250
  printf 'MAIL FROM:<me@example.org>\r\n' >&3; expect 250
  printf 'RCPT TO:<you@example.net>\r\n' >&3; expect 250
  printf 'DATA\r\n' >&3; expect 354
  printf 'Subject: packaged\r\n\r\nhello\r\n.\r\n' >&3; expect 250
  [ "$line" = "250 Message accepted for delivery" ] || fail "the message was not accepted: $line"
  printf 'QUIT\r\n' >&3; expect 221
  exec 3<&-
}

# Waits up to 10 seconds for the process to end; sets `status`.
wait_end() { # PID
  for _ in $(seq 100); do
    kill -0 "$1" 2>/dev/null || break
    sleep 0.1
  done
  kill -0 "$1" 2>/dev/null && fail "the relay did not end"
  status=0
  wait "$1" || status=$?
}

queued() { find "$1/OutBox" -maxdepth 1 -type f ! -name '.*' | wc -l; }

# The unit, its paths moved into the scratch root: the same command lines and environment.
unit="$rootfs/usr/lib/systemd/system/postiq.service"
unit_value() { sed -n "s/^$1=//p" "$unit"; }
[ "$(unit_value Type)" = simple ] || fail "the unit is not Type=simple"
state="$scratch/var/lib/postiq"
relocate() { sed -e "s|/usr/bin/postiq|$bin|" -e "s|/var/lib/postiq|$state|g" -e "s|/run/postiq|$scratch/run|g"; }
start=$(unit_value ExecStart | relocate)
reload=$(unit_value ExecReload | relocate)
[ "$start" = "$bin --headless --folder $state" ] || fail "unexpected ExecStart: $start"
[ "$reload" = "$bin --folder $state --reload" ] || fail "unexpected ExecReload: $reload"
environment=()
while IFS= read -r assignment; do environment+=("$(relocate <<<"$assignment")"); done < <(unit_value Environment)
mkdir -p "$scratch/run"
port=$(free_port)
prepare_folder "$state" "$port"
env "${environment[@]}" $start 2>"$scratch/unit.err" &
pid=$!
pids+=("$pid")
send_mail "$port"
[ "$(queued "$state")" -eq 1 ] || fail "the unit's relay did not queue the message"
env "${environment[@]}" $reload || fail "ExecReload failed"
[ -S "$(ls -d "$scratch"/run/postiq-* 2>/dev/null | head -n 1)" ] || fail "the control socket is not in the runtime folder"
[ -f "$state/.config/postiq/registry.ini" ] || fail "the installation record is not in the state folder"
kill -TERM "$pid" # what systemctl stop sends
wait_end "$pid"
[ "$status" -eq 0 ] || fail "the unit's relay ended with $status: $(cat "$scratch/unit.err")"

# The desktop entry's command, with the user's data folder in a scratch home.
exec_line=$(sed -n 's/^Exec=//p' "$rootfs/usr/share/applications/postiq.desktop")
# With the entry's string escapes undone (\\ for \), its quoting is the shell's double quoting.
unescaped=${exec_line//\\\\/\\}
eval "argv=($unescaped)"
home="$scratch/home"
data="$home/.local/share/postiq"
port=$(free_port)
prepare_folder "$data" "$port"
env -u XDG_DATA_HOME -u DISPLAY -u WAYLAND_DISPLAY HOME="$home" XDG_CONFIG_HOME="$home/.config" \
    PATH="$rootfs/usr/bin:$PATH" "${argv[@]}" 2>"$scratch/desktop.err" &
pid=$!
pids+=("$pid")
send_mail "$port"
[ "$(queued "$data")" -eq 1 ] || fail "the desktop entry's relay did not keep its mail in $data"
XDG_CONFIG_HOME="$home/.config" "$bin" --folder "$data" --quit || fail "--quit failed"
wait_end "$pid"
[ "$status" -eq 0 ] || fail "the desktop entry's relay ended with $status: $(cat "$scratch/desktop.err")"

# --- The packaged sendmail and mailq ------------------------------------------------------------
# A program that runs sendmail with a cron-like message, then mailq: both through the links as
# installed, on a folder of their own.
if "$bin" --help | grep -q -- --sendmail; then
  mail_folder="$scratch/sendmail"
  printf 'Subject: nightly\n\nall done\n' |
    POSTIQ_FOLDER="$mail_folder" "$rootfs/usr/sbin/sendmail" -i you@example.net ||
    fail "the packaged sendmail did not queue the message"
  [ "$(queued "$mail_folder")" -eq 1 ] || fail "the packaged sendmail left $(queued "$mail_folder") files"
  POSTIQ_FOLDER="$mail_folder" "$rootfs/usr/bin/mailq" | grep -q 'you@example.net' ||
    fail "the packaged mailq does not list the message"

  # The drop box as postiq-mta sets it up: a user queues, the relay's user reads what was queued.
  if [ "$(id -u)" -eq 0 ] && command -v setpriv >/dev/null; then
    drop="$scratch/drop"
    mkdir -p "$drop/OutBox"
    chown nobody:nogroup "$drop" "$drop/OutBox"
    chmod 0751 "$drop" && chmod 3773 "$drop/OutBox"
    chmod 0755 "$scratch"
    as() { local user=$1; shift; setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups "$@"; }
    printf 'Subject: from a user\n\nhello\n' |
      as daemon env HOME=/ POSTIQ_FOLDER="$drop" "$rootfs/usr/sbin/sendmail" -i you@example.net ||
      fail "a local user cannot queue into the drop box"
    file=$(find "$drop/OutBox" -maxdepth 1 -type f ! -name '.*' | head -n 1)
    [ -n "$file" ] || fail "nothing in the drop box"
    as nobody cat "$file" | grep -q 'from a user' || fail "the relay's user cannot read the queued file"
  fi
else
  echo "this build has no sendmail interface: the packaged links are not run" >&2
fi

echo "package ok: $deb $mta"
