#!/usr/bin/env bash
# Kills the relay with SIGKILL at random moments while twenty clients send and delivery runs,
# ten times by default, and prints what became of the accepted messages (lost must be 0).
# Usage: bench/crash.sh [kills]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/scripts/setup.sh"
POSTIQ_CRASH_KILLS=${1:-10} "$root/build/tests/test_core" --gtest_filter='CrashTest.*'
