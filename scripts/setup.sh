#!/usr/bin/env bash
# Shared by run.sh, test.sh and package.sh: installs the Debian packages the caller needs, then
# configures build/ and builds there: everything, only the program when the caller sets
# program_only=1, nothing when it sets skip_build. Sourced, so that the caller's `set -e` and
# working directory apply.
#
# The caller chooses what to install beyond the build's needs: with_test_peers=1 adds the programs
# the suite talks to and checks with; extra_packages=(...) adds its own.

# What building the program needs, whoever builds it. libgtest-dev and libgmock-dev too: build/ is
# configured with the suite, even when only the program is built.
build_packages=(g++ cmake make pkg-config qt6-base-dev libqt6svg6 libldns-dev libgtest-dev libgmock-dev
                qtkeychain-qt6-dev qt6-translations-l10n)

# Only the suite's: the mail software the tests hand mail to and take it from (postfix for its
# smtp-sink and sendmail, aiosmtpd, swaks, msmtp, neomutt, curl, mailx, git send-email), the DNS
# server, the keyring and its session bus, the test authority (openssl), the virtual screen and
# tray host of the screenshots, and the package checks (dpkg-dev, lintian, man-db).
test_packages=(postfix python3 python3-aiosmtpd swaks msmtp neomutt curl bsd-mailx git-email dnsmasq-base
               gnome-keyring libsecret-tools dbus-x11 openssl xvfb xauth trayer dpkg-dev lintian
               man-db)

packages=("${build_packages[@]}")
[ "${with_test_peers:-0}" = 1 ] && packages+=("${test_packages[@]}")
packages+=(${extra_packages[@]+"${extra_packages[@]}"})

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing missing packages: ${missing[*]}"
  # sudo -n never waits for a password (a CI run has nobody to type it); env carries the
  # non-interactive front end through sudo, which would otherwise drop it.
  if [ "$(id -u)" -eq 0 ]; then
    as_root=(env DEBIAN_FRONTEND=noninteractive)
  elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
    as_root=(sudo -n env DEBIAN_FRONTEND=noninteractive)
  else
    echo "error: these Debian packages are missing and this user cannot install them:" >&2
    echo "  sudo apt-get install ${missing[*]}" >&2
    exit 1
  fi
  # Postfix is only a test peer: it asks no question, gets no configuration, and neither it nor
  # anything else installed here starts as a service (policy-rc.d answers "not now" meanwhile).
  created_policy=0
  if [[ " ${missing[*]} " == *" postfix "* ]]; then
    echo "postfix postfix/main_mailer_type select No configuration" | "${as_root[@]}" debconf-set-selections
    if [ ! -e /usr/sbin/policy-rc.d ]; then
      "${as_root[@]}" sh -c 'printf "#!/bin/sh\nexit 101\n" > /usr/sbin/policy-rc.d && chmod 755 /usr/sbin/policy-rc.d'
      created_policy=1
    fi
  fi
  # Another apt run may hold the lock: wait for it rather than fail.
  apt_get=("${as_root[@]}" apt-get -o DPkg::Lock::Timeout=600)
  installed=0
  "${apt_get[@]}" update -qq && "${apt_get[@]}" install -y -qq "${missing[@]}" && installed=1
  [ "$created_policy" -eq 1 ] && "${as_root[@]}" rm -f /usr/sbin/policy-rc.d
  if [ "$installed" -ne 1 ]; then
    echo "error: could not install: ${missing[*]}" >&2
    exit 1
  fi
fi

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
if [ -z "${skip_build:-}" ]; then
  cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  targets=()
  if [ "${program_only:-0}" = 1 ]; then
    # The windows' plugin, where the tree has one, belongs to the program.
    targets=(--target postiq)
    all_targets=$(cmake --build "$root/build" --target help)
    grep -qw postiq_ui <<<"$all_targets" && targets+=(--target postiq_ui)
  fi
  cmake --build "$root/build" -j "$(nproc)" ${targets[@]+"${targets[@]}"}
fi
