#!/usr/bin/env bash
# What client.so imports from the engine and game libraries must be exactly the committed
# list: every symbol the module leaves undefined that one of those libraries defines, one a
# line, demangled and sorted. A new import (an engine extension the game's own libraries do
# not have) or a lost one fails here, with the difference.
#   tests/platform/imports_test.sh LIBRARY_DIR LIST
set -euo pipefail
libs=$1
list=$2
symbols() { c++filt | sed -E 's/^ *[0-9a-f]* *[A-Za-z] //' | sort -u; }
imports=$(nm -D --undefined-only "$libs/client.so" | grep -v '@' | symbols)
defined=$(for lib in game OrvexNet OrvexFileSystem OrvexCpu; do
  nm -D --defined-only "$libs/$lib.so"
done | symbols)
actual=$(comm -12 <(echo "$imports") <(echo "$defined"))
if ! difference=$(diff <(sort "$list") <(echo "$actual")); then
  echo "client.so's imports from the engine and game libraries differ from $list" >&2
  echo "(< only in the list, > only in client.so):" >&2
  echo "$difference" >&2
  exit 1
fi
echo "client.so imports the $(wc -l < "$list") listed platform symbols and nothing else"
