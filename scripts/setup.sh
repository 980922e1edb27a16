#!/usr/bin/env bash
# Shared by run.sh, test.sh and package.sh: installs the Debian packages the build needs, then
# configures and builds in build/ (unless the caller sets skip_build). Sourced, so that the
# caller's `set -e` and working directory apply.

# libqt6svg6: the icons; openssl: the suite's test authority; xvfb, xauth and trayer: the desktop
# screenshots; dpkg-dev and man-db: the package's library dependencies and its manual page.
packages=(g++ cmake make pkg-config qt6-base-dev libqt6svg6 libldns-dev libgtest-dev libgmock-dev
          openssl xvfb xauth trayer dpkg-dev man-db)
# What the caller needs besides (test.sh: the mail programs the tests run against the relay).
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
  # Another apt run may hold the lock: wait for it rather than fail.
  apt_get=("${as_root[@]}" apt-get -o DPkg::Lock::Timeout=600)
  "${apt_get[@]}" update -qq
  "${apt_get[@]}" install -y -qq "${missing[@]}" || {
    echo "error: could not install: ${missing[*]}" >&2
    exit 1
  }
fi

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
if [ -z "${skip_build:-}" ]; then
  cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$root/build" -j "$(nproc)"
fi
