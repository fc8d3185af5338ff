#!/usr/bin/env bash
# The long soak: game-server with 3000 moving entities and a steady churn of creations,
# updates, moves and destructions, and game-client, both with simulated network faults on
# their UDP sockets (loss=10%,delay=40ms,jitter=20ms,reorder=20%,dup=5%). After 90% of the
# time (at least 10 s before the end) the faults are lifted and the scene stands still;
# when the server stops, the client's replica must equal the server's final state.
#
#   tools/soak.sh BUILD_DIR [SECONDS]      (./x soak: build/release, SOAK_SECONDS or 300)
#
# The soak is BUILD_DIR's soak_tests (tests/tools/soak_test.cpp), which ./x test runs for
# 45 s in the release build (ctest label "soak"); the exit status is the test's.
set -euo pipefail

if [[ $# -lt 1 || $# -gt 2 ]]; then
  echo "usage: tools/soak.sh BUILD_DIR [SECONDS]" >&2
  exit 64
fi
build=$1
seconds=${2:-300}
if ! [[ $seconds =~ ^[0-9]+$ ]] || ((seconds < 20)); then
  echo "tools/soak.sh: SECONDS must be a whole number of at least 20" >&2
  exit 64
fi
tests=$build/bin/soak_tests
if [[ ! -x $tests || ! -x $build/bin/game-server || ! -x $build/bin/game-client ]]; then
  echo "tools/soak.sh: $build lacks soak_tests, game-server or game-client (build it first)" >&2
  exit 1
fi
echo "tools/soak.sh: soaking for $seconds s" >&2
ORVEX_SOAK_SECONDS=$seconds exec "$tests" --gtest_color=no
