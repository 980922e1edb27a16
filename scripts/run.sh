#!/usr/bin/env bash
# Installs what is missing, builds, then starts the relay with the options given.
set -euo pipefail
source "$(dirname "$0")/setup.sh"
exec "$root/build/postiq" "$@"
