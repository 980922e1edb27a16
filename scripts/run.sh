#!/usr/bin/env bash
# Installs what the build needs when it is missing, builds the program (not the test suite, so
# that a second start takes seconds), then starts the relay with the options given. Without
# --folder the relay uses the user's own data folder, never build/, so that cleaning the build
# never takes queued mail with it.
set -euo pipefail
program_only=1 source "$(dirname "$0")/setup.sh"

folder=()
case " $* " in
  *" --folder "* | *" --folder="*) ;;
  *) folder=(--folder "${XDG_DATA_HOME:-$HOME/.local/share}/postiq") ;;
esac
exec "$root/build/postiq" "${folder[@]}" "$@"
