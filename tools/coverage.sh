#!/usr/bin/env bash
# Line and branch coverage of src/ and engine/ from the whole test suite, with clang's
# source-based coverage. Every process the suite starts (the tools run as children too)
# writes its own profile; the report merges them.
#
#   tools/coverage.sh BUILD_DIR      (a build of the coverage preset; ./x coverage)
#
# Prints the per-file table and a closing "coverage:" line; writes an HTML report to
# BUILD_DIR/coverage-html.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
profiles=$build/profiles
rm -rf "$profiles"
mkdir -p "$profiles"

# %p: one file per process; %m: one per instrumented binary, merged across runs. The soak
# is a load test that reaches nothing the suite does not, and its timing does not survive
# an unoptimised, instrumented build: it stays in the release run of ./x test.
status=0
LLVM_PROFILE_FILE="$profiles/%p-%m.profraw" \
  ctest --test-dir "$build" --output-on-failure -j "${JOBS:-$(nproc)}" --timeout 600 -LE "soak|install" ||
  status=$?

llvm-profdata-14 merge -sparse "$profiles"/*.profraw -o "$build/coverage.profdata"

# llvm-cov takes the first binary as it is and every other one after -object.
binaries=()
for f in "$build"/lib/*.so "$build"/bin/*; do
  [[ -f $f && -x $f ]] && binaries+=("$f")
done
objects=("${binaries[0]}")
for f in "${binaries[@]:1}"; do objects+=(-object "$f"); done
# The libraries' own sources only: src/ (the module) and engine/ (the runtime).
filter=(-ignore-filename-regex="$root/(tests|tools|bench|fuzz)/" -ignore-filename-regex='^/usr/')
llvm-cov-14 report -instr-profile="$build/coverage.profdata" "${objects[@]}" \
  "${filter[@]}" -show-region-summary=false -show-instantiation-summary=false \
  >"$build/coverage.txt"
llvm-cov-14 show -format=html -output-dir="$build/coverage-html" \
  -instr-profile="$build/coverage.profdata" "${objects[@]}" "${filter[@]}" \
  >/dev/null
cat "$build/coverage.txt"
total=$(grep '^TOTAL' "$build/coverage.txt")
# Columns without regions: Functions Missed Executed Lines Missed Cover Branches Missed Cover.
read -r -a t <<<"$total"
echo "coverage: lines ${t[6]} of ${t[4]} lines, branches ${t[9]} of ${t[7]} branches (src/ and engine/); HTML in $build/coverage-html"
exit $status
