#!/usr/bin/env bash
# Times the two catalog goals, whole process, warm cache:
#
#   bench/compare-catalog.sh [LARGE_TREE] [TEN_TREE]
#
# 1. `tvl catalog add LARGE_TREE` against `tvl scan LARGE_TREE` plus the attribute filler over
#    the same tree (BM_AttributeFiller_Fill of the scan benchmark): the goal is at most 1.2x.
# 2. `tvl catalog search Q` over ten catalogs, one per top folder of TEN_TREE (ten copies of the
#    structure of /usr, about 150,000 entries each), against `tvl search Q` over one index of the
#    whole of TEN_TREE: the goal is under 2x.
#
# LARGE_TREE defaults to the tree of scripts/make-large-tree; TEN_TREE to
# /tmp/tarvolin-catalog-tree, made here when missing. Needs the release preset built (tvl and
# the benchmarks) and hyperfine.
set -euo pipefail
cd "$(dirname "$0")/.."
large=${1:-/tmp/tarvolin-large-tree}
ten=${2:-/tmp/tarvolin-catalog-tree}
build=${BUILD:-$PWD/build/release}
tvl=$build/tvl
scanbench=$build/bench/tarvolin_bench
[ -x "$tvl" ] || { echo "build the release preset first" >&2; exit 1; }
[ -d "$large" ] || scripts/make-large-tree "$large"
if [ ! -f "$ten/.complete" ]; then
  rm -rf "$ten.partial"; mkdir -p "$ten.partial"
  for i in $(seq 1 10); do cp -a --attributes-only /usr "$ten.partial/usr$i" 2>/dev/null || true; done
  find "$ten.partial" | wc -l > "$ten.partial/.complete"
  mv "$ten.partial" "$ten"
fi

work=$(mktemp -d /tmp/tarvolin-compare-catalog-XXXXXX)
trap 'rm -rf "$work"' EXIT
export HOME=$work/home
catalogs="$HOME/Library/Application Support/Tarvolin/Catalogs"
mkdir -p "$HOME"

median() { # hyperfine json -> median ms of command $2
  python3 -c "import json,sys; print(json.load(open(sys.argv[1]))['results'][int(sys.argv[2])]['median']*1000)" "$1" "$2"
}
ratio() { python3 -c "print(f'{$1/$2:.2f}')"; }

echo "== tvl catalog add vs tvl scan + attribute filler ($large, $(cat "$large/.complete" 2>/dev/null || echo '?') entries)"
hyperfine --warmup 1 --runs 5 --export-json "$work/add.json" \
  --prepare "rm -rf '$catalogs'" "$tvl catalog add $large" "$tvl scan $large" >/dev/null 2>&1
add=$(median "$work/add.json" 0); scan=$(median "$work/add.json" 1)
if [ -x "$scanbench" ]; then
  fill=$(TARVOLIN_BENCH_TREE=$large "$scanbench" --benchmark_filter=BM_AttributeFiller_Fill \
    --benchmark_repetitions=3 --benchmark_format=json 2>/dev/null |
    python3 -c "import json,sys; r=[b for b in json.load(sys.stdin)['benchmarks'] if b.get('aggregate_name')=='median']; print(r[0]['real_time'])")
else
  echo "(no $scanbench: the filler's time is taken as 0)"; fill=0
fi
printf '%-34s %10.1f ms\n' "tvl catalog add" "$add" "tvl scan" "$scan" "attribute filler" "$fill"
printf '%-34s %10s   (goal <= 1.20)\n' "add / (scan + fill)" "$(ratio "$add" "($scan + $fill)")"

echo
echo "== tvl catalog search over ten catalogs vs tvl search over one index ($ten)"
rm -rf "$catalogs"
for folder in "$ten"/*/; do "$tvl" catalog add "${folder%/}" >/dev/null; done
"$tvl" catalog search warmup >/dev/null   # builds each catalog's trigram side file once
"$tvl" scan "$ten" >/dev/null
printf '%-24s %12s %12s %8s\n' query catalogs_ms one_index_ms ratio
for q in libxml2 python ext:py "python3 config"; do
  hyperfine -N --warmup 3 --runs 20 --export-json "$work/s.json" \
    "$tvl catalog search $q" "$tvl search $q" >/dev/null 2>&1
  a=$(median "$work/s.json" 0); b=$(median "$work/s.json" 1)
  printf '%-24s %12.2f %12.2f %8s   (goal < 2.00)\n' "$q" "$a" "$b" "$(ratio "$a" "$b")"
done
