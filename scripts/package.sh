#!/usr/bin/env bash
# Builds the Debian package: a Release build without the tests in build-package/, then CPack.
# Prints the path of the .deb.
set -euo pipefail
skip_build=1 source "$(dirname "$0")/setup.sh"

out="$root/build-package"
cmake -S "$root" -B "$out" -DCMAKE_BUILD_TYPE=Release -DPOSTIQ_TESTS=OFF >/dev/null
cmake --build "$out" -j "$(nproc)"
(cd "$out" && cpack -G DEB >/dev/null)
deb=$(ls -t "$out"/postiq_*.deb | head -n 1)
echo "$deb"
