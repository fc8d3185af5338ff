#!/usr/bin/env bash
# Runs every benchmark executable of a build (BUILD_DIR/bin/*_bench) with JSON output into
# BUILD_DIR/bench-results/, then prints ratio tables against the baselines measured in
# the same run (bench/ratios.py) and writes them to BUILD_DIR/bench-results/ratios.md.
#
#   bench/run.sh BUILD_DIR [--update-docs] [BENCHMARK_FLAGS...]
#
# --update-docs replaces the figures between the markers in docs/performance.md.
# Other flags go to every executable (for example --benchmark_filter=SharedLock).
# BENCH_REPETITIONS (default 3) sets how many times each benchmark is repeated; the
# tables report the median. When BUILD_DIR/bin/load-driver exists it runs after them,
# LOAD_SECONDS (default 5; 0 skips it) per measured phase, at the declared scale (100,000
# entities streamed at 20 ticks a second in full datagrams), and its table is appended.
set -euo pipefail

if (($# < 1)); then
  echo "usage: bench/run.sh BUILD_DIR [--update-docs] [BENCHMARK_FLAGS...]" >&2
  exit 64
fi
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
shift
update_docs=0
flags=()
for arg in "$@"; do
  if [[ $arg == --update-docs ]]; then update_docs=1; else flags+=("$arg"); fi
done

shopt -s nullglob
benches=("$build"/bin/*_bench)
if ((${#benches[@]} == 0)); then
  echo "run.sh: no benchmark executables in $build/bin (build the project first)" >&2
  exit 1
fi

out=$build/bench-results
mkdir -p "$out"
rm -f "$out"/*.json
results=()
for exe in "${benches[@]}"; do
  name=$(basename "$exe")
  echo "run.sh: $name" >&2
  "$exe" --benchmark_format=json \
    --benchmark_repetitions="${BENCH_REPETITIONS:-3}" \
    --benchmark_report_aggregates_only=true \
    "${flags[@]}" >"$out/$name.json"
  results+=("$out/$name.json")
done

# The end-to-end load driver, briefly (LOAD_SECONDS per phase); its table joins the others.
rm -f "$out/load-driver.md"
if [[ -x $build/bin/load-driver && ${LOAD_SECONDS:-5} != 0 ]]; then
  echo "run.sh: load-driver" >&2
  "$build/bin/load-driver" --seconds "${LOAD_SECONDS:-5}" --rate 20 --flat \
    --json "$out/load-driver.json" \
    --markdown "$out/load-driver.md" >/dev/null || echo "run.sh: load-driver failed" >&2
fi

python3 "$here/ratios.py" "${results[@]}" >"$out/ratios.md"
if [[ -f $out/load-driver.md ]]; then
  printf '\n' >>"$out/ratios.md"
  cat "$out/load-driver.md" >>"$out/ratios.md"
fi
cat "$out/ratios.md"

if ((update_docs)); then
  doc=$here/../docs/performance.md
  python3 - "$doc" "$out/ratios.md" <<'EOF'
import sys
doc, tables = sys.argv[1], open(sys.argv[2]).read()
begin, end = "<!-- figures:begin -->", "<!-- figures:end -->"
text = open(doc).read()
if begin not in text or end not in text:
    sys.exit(f"run.sh: {doc} has no {begin} ... {end} markers")
head, rest = text.split(begin, 1)
_, tail = rest.split(end, 1)
open(doc, "w").write(f"{head}{begin}\n{tables}{end}{tail}")
EOF
  echo "run.sh: figures written to docs/performance.md" >&2
fi
