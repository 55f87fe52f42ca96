#!/usr/bin/env bash
# Times `tvl scan TREE` against fd and find on the same tree with a warm cache, and the attribute
# filler against `find -printf` of sizes and times; prints the ratios.
# Usage: bench/compare-scan.sh [TREE]   (default: the large tree of scripts/make-large-tree,
# built first if missing). Needs the release build (cmake --preset release && cmake --build
# --preset release) and hyperfine and fd-find (scripts/install-deps).
set -euo pipefail
cd "$(dirname "$0")/.."

tree="${1:-}"
if [ -z "$tree" ]; then
  tree=/tmp/tarvolin-large-tree
  scripts/make-large-tree "$tree"
fi
tree="$(cd "$tree" && pwd)"
tvl="$PWD/build/release/tvl"
bench="$PWD/build/release/bench/tarvolin_bench"
for tool in "$tvl" "$bench"; do
  [ -x "$tool" ] || { echo "missing $tool: build the release preset first" >&2; exit 1; }
done

home="$(mktemp -d)"
results="$(mktemp -d)"
trap 'rm -rf "$home" "$results"' EXIT

echo "Tree: $tree ($(find "$tree" | wc -l) entries), $(nproc) cores"
HOME="$home" /usr/bin/time -f "  peak memory of tvl scan: %M KB" "$tvl" scan "$tree"
index="$home/Library/Application Support/Tarvolin/index.bin"
echo "  index size: $(( $(stat -c %s "$index") / 1024 )) KB"
echo

hyperfine --warmup 2 --runs 10 --export-json "$results/scan.json" \
  -n tvl "HOME='$home' '$tvl' scan '$tree'" \
  -n fd "fdfind -uu . '$tree' > /dev/null" \
  -n find "find '$tree' > /dev/null" \
  -n find-printf "find '$tree' -printf '%s %T@\n' > /dev/null"

# The filler has no command of its own: its benchmark times fill() over a scan of the tree.
TARVOLIN_BENCH_TREE="$tree" "$bench" --benchmark_filter='BM_AttributeFiller_Fill' \
  --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
  --benchmark_format=json > "$results/fill.json"

python3 - "$results/scan.json" "$results/fill.json" <<'PYTHON'
import json, sys
scan = {r["command"]: r for r in json.load(open(sys.argv[1]))["results"]}
fill = [b for b in json.load(open(sys.argv[2]))["benchmarks"]
        if b.get("aggregate_name") == "median"][0]
fill_s = fill["real_time"] / 1000.0  # milliseconds
def busy(name):  # processors busy: CPU (user + sys) over wall
    r = scan[name]
    return f"cpu/wall {(r['user'] + r['system']) / r['mean']:.2f}"
print()
print(f"tvl scan            {scan['tvl']['mean']:.3f} s   {busy('tvl')}")
print(f"fd -uu              {scan['fd']['mean']:.3f} s   {busy('fd')}   tvl/fd   = {scan['tvl']['mean'] / scan['fd']['mean']:.2f}")
print(f"find                {scan['find']['mean']:.3f} s   {busy('find')}   tvl/find = {scan['tvl']['mean'] / scan['find']['mean']:.2f}")
print(f"AttributeFiller     {fill_s:.3f} s (median)   cpu/wall {fill.get('cpu/wall', 0):.2f}")
print(f"find -printf        {scan['find-printf']['mean']:.3f} s   fill/find-printf = {fill_s / scan['find-printf']['mean']:.2f}")
PYTHON
