#!/usr/bin/env bash
# Shared by run.sh and test.sh: installs the Debian packages the build needs, then configures and
# builds in build/. Sourced, so that the caller's `set -e` and working directory apply.

packages=(g++ cmake make pkg-config qt6-base-dev libldns-dev libgtest-dev libgmock-dev)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing missing packages: ${missing[*]}"
  if [ "$(id -u)" -eq 0 ]; then
    apt_get=(apt-get)
  elif command -v sudo >/dev/null 2>&1; then
    apt_get=(sudo apt-get)
  else
    echo "error: these Debian packages are missing and this user cannot install them:" >&2
    echo "  apt-get install ${missing[*]}" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  "${apt_get[@]}" update -qq
  "${apt_get[@]}" install -y -qq "${missing[@]}" || {
    echo "error: could not install: ${missing[*]}" >&2
    exit 1
  }
fi

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j "$(nproc)"
