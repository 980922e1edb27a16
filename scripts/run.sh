#!/usr/bin/env bash
# Installs what is missing, builds, then starts the relay with the options given. Without
# --folder the relay uses the user's own data folder, never build/, so that cleaning the build
# never takes queued mail with it.
set -euo pipefail
source "$(dirname "$0")/setup.sh"

folder=()
case " $* " in
  *" --folder "* | *" --folder="*) ;;
  *) folder=(--folder "${XDG_DATA_HOME:-$HOME/.local/share}/postiq") ;;
esac
exec "$root/build/postiq" "${folder[@]}" "$@"
