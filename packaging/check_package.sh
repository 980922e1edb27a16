#!/usr/bin/env bash
# Checks the Debian package without installing it on this machine: builds it from a configured
# build folder (or takes the .deb given), unpacks it into a scratch root, then runs there the
# commands of its systemd unit and of its desktop entry, each against a relay that must accept a
# message, answer --reload and end cleanly.
#
#   check_package.sh BUILD_DIR [PACKAGE.deb]
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

if [ $# -ge 2 ]; then
  deb=$2
else
  cpack --config "$build/CPackConfig.cmake" -G DEB -B "$scratch/out" >/dev/null
  deb=$(ls "$scratch"/out/postiq_*.deb)
fi

# --- What the package holds ---------------------------------------------------------------------
contents=$(dpkg-deb -c "$deb")
for path in ./usr/bin/postiq ./usr/lib/systemd/system/postiq.service \
            ./usr/share/applications/postiq.desktop ./usr/share/man/man1/postiq.1.gz \
            ./usr/share/icons/hicolor/scalable/apps/postiq.svg ./usr/share/doc/postiq/changelog.Debian.gz; do
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

rootfs="$scratch/root"
dpkg-deb -x "$deb" "$rootfs"
bin="$rootfs/usr/bin/postiq"
[ "$("$bin" --version)" = "Postiq 3.0" ] || fail "the installed program does not say its version"

if command -v man >/dev/null; then
  man -l "$rootfs/usr/share/man/man1/postiq.1.gz" 2>/dev/null | grep -q 'postiq - mail relay for the desktop' ||
    fail "man -l does not show the page"
  warnings=$(man --warnings -l "$rootfs/usr/share/man/man1/postiq.1.gz" 2>&1 >/dev/null)
  [ -z "$warnings" ] || fail "the manual page has warnings: $warnings"
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

echo "package ok: $deb"
