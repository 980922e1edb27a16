#!/usr/bin/env bash
# Builds the two Debian packages, postiq and postiq-mta: a Release build without the tests in
# build-package/, then CPack. Prints the paths of the two .deb files.
set -euo pipefail
# dpkg-dev: the library dependencies of the program.
extra_packages=(dpkg-dev)
skip_build=1 source "$(dirname "$0")/setup.sh"

out="$root/build-package"
cmake -S "$root" -B "$out" -DCMAKE_BUILD_TYPE=Release -DPOSTIQ_TESTS=OFF >/dev/null
cmake --build "$out" -j "$(nproc)"
(cd "$out" && cpack -G DEB >/dev/null)
ls -t "$out"/postiq_*.deb | head -n 1
ls -t "$out"/postiq-mta_*.deb | head -n 1
