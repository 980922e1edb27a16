#!/usr/bin/env bash
# Installs what is missing, builds, then runs the whole test suite.
set -euo pipefail
source "$(dirname "$0")/setup.sh"
cd "$root/build"
ctest --output-on-failure -j "$(nproc)" --timeout 300
