#!/usr/bin/env bash
# client.so's dynamic symbol table against a committed list: one symbol a line, demangled
# and sorted. Either side of a difference fails, and the difference is printed.
#   imports: every symbol the module leaves undefined that one of the engine and game
#            libraries defines; a new import (an engine extension the game's own libraries
#            do not have) fails here.
#   exports: every symbol the module defines for others: client::Client's public members
#            and the platform's parts it defines for the game; a symbol of the module's
#            inside that leaks out fails here.
#   tests/platform/symbols_test.sh imports|exports LIBRARY_DIR LIST
set -euo pipefail
kind=$1
libs=$2
list=$3
symbols() { c++filt | sed -E 's/^ *[0-9a-f]* *[A-Za-z] //' | sort -u; }
case $kind in
  imports)
    imports=$(nm -D --undefined-only "$libs/client.so" | grep -v '@' | symbols)
    defined=$(for lib in game OrvexNet OrvexFileSystem OrvexCpu; do
      nm -D --defined-only "$libs/$lib.so"
    done | symbols)
    actual=$(comm -12 <(echo "$imports") <(echo "$defined"))
    ;;
  exports) actual=$(nm -D --defined-only "$libs/client.so" | symbols) ;;
  *)
    echo "usage: $0 imports|exports LIBRARY_DIR LIST" >&2
    exit 64
    ;;
esac
if ! difference=$(diff <(sort "$list") <(echo "$actual")); then
  echo "client.so's $kind differ from $list" >&2
  echo "(< only in the list, > only in client.so):" >&2
  echo "$difference" >&2
  exit 1
fi
echo "client.so's $kind are the $(wc -l < "$list") listed symbols and nothing else"
