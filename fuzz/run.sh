#!/usr/bin/env bash
# Runs the fuzz targets, one after the other, each for SECONDS on a scratch copy of its
# corpus (fuzz/corpus/<target>) with the dictionary fuzz/orvex.dict, and prints the
# executions and the coverage of each.
#
#   fuzz/run.sh BUILD_DIR SECONDS [TARGET...]
#
# BUILD_DIR is a build of the fuzz preset (./x fuzz builds build/fuzz). A crash, a leak,
# a hang (30 s per input) or an allocation above 2 GiB fails the run: the input is kept in
# BUILD_DIR/fuzz-artifacts/<target>/ and the exit status is 1. The corpus in the tree is
# never written; the inputs a run adds are dropped with the scratch copy, unless
# FUZZ_KEEP=DIR is set, which keeps them in DIR/<target>.
set -euo pipefail

usage() {
  echo "usage: fuzz/run.sh BUILD_DIR SECONDS [TARGET...]" >&2
  exit 64
}
[[ $# -ge 2 ]] || usage
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
seconds=$2
shift 2
[[ $seconds =~ ^[0-9]+$ && $seconds -gt 0 ]] || usage
targets=("$@")
((${#targets[@]})) || targets=(fuzz_welcome fuzz_reliable fuzz_datagram fuzz_streams fuzz_recording)

scratch=$(mktemp -d "${TMPDIR:-/tmp}/orvex-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

status=0
summary=()
for target in "${targets[@]}"; do
  binary=$build/bin/$target
  if [[ ! -x $binary ]]; then
    echo "fuzz/run.sh: $binary is missing (build the fuzz preset)" >&2
    exit 1
  fi
  corpus=$scratch/$target
  mkdir -p "$corpus" "$build/fuzz-artifacts/$target"
  cp "$here/corpus/$target"/* "$corpus"/
  log=$scratch/$target.log
  echo "fuzz/run.sh: $target for $seconds s" >&2
  result=ok
  if ! "$binary" -max_total_time="$seconds" -timeout=30 -malloc_limit_mb=2048 \
      -dict="$here/orvex.dict" -artifact_prefix="$build/fuzz-artifacts/$target/" \
      -print_final_stats=1 "$corpus" >"$log" 2>&1; then
    result=FAILED
    status=1
    grep -v -e ' NEW ' -e ' REDUCE ' -e ' pulse ' "$log" | tail -n 80 >&2
  fi
  if [[ -n ${FUZZ_KEEP:-} ]]; then
    mkdir -p "$FUZZ_KEEP/$target"
    cp "$corpus"/* "$FUZZ_KEEP/$target"/
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log")
  pcs=$(sed -n 's/^INFO: Loaded [0-9]* PC tables (\([0-9]*\) PCs).*/\1/p' "$log" | head -n 1)
  last=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -n 1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
  inputs=$(sed -n 's/.* corp: \([0-9]*\)\/.*/\1/p' <<<"$last")
  summary+=("$(printf '%-14s %6s s %12s runs %7s/s  cov %5s of %5s PCs  ft %6s  corpus %5s  rss %5s MB  %s' \
    "$target" "$seconds" "${runs:-?}" "${rate:-?}" "${cov:-?}" "${pcs:-?}" "${ft:-?}" \
    "${inputs:-?}" "${rss:-?}" "$result")")
done

echo "fuzz/run.sh: results (cov: edges covered in the module, OrvexFileSystem.so and game.so; for fuzz_recording, in the recording reader)"
printf '%s\n' "${summary[@]}"
exit $status
