#!/usr/bin/env bash
# Times `tvl query --limit 0 -0 ext:so` (every match, ranked, NUL-separated) against
# `plocate -0 .so` on the same tree, whole process with the output counted by `wc -c`, warm cache.
#
#   bench/compare-query.sh [TREE] [TVL]
#
# TREE defaults to the large tree of scripts/make-large-tree, TVL to build/release/tvl. The tree
# is scanned into a private HOME and indexed by plocate's updatedb into a private database (every
# file visible); then hyperfine runs both pipelines and the ratio is printed (goal: at most 1.5).
# plocate has no ext: operator, so there the extension is matched as the text ".so", which also
# finds names such as "libfoo.so.6": the match counts are printed beside the times.
set -euo pipefail
cd "$(dirname "$0")/.."
tree=${1:-/tmp/tarvolin-large-tree}
tvl=${2:-$PWD/build/release/tvl}
[ -d "$tree" ] || scripts/make-large-tree "$tree"
[ -x "$tvl" ] || { echo "build the release preset first" >&2; exit 1; }

work=$(mktemp -d /tmp/tarvolin-compare-XXXXXX)
trap 'rm -rf "$work"' EXIT
export HOME=$work/home
mkdir -p "$HOME"
"$tvl" scan "$tree" >/dev/null
updatedb -U "$tree" -o "$work/plocate.db" --require-visibility no

median() { # hyperfine json -> median ms of command $2
  python3 -c "import json,sys; print(json.load(open(sys.argv[1]))['results'][int(sys.argv[2])]['median']*1000)" "$1" "$2"
}

tvl_cmd="$tvl query --limit 0 -0 ext:so | wc -c"
plocate_cmd="plocate -d $work/plocate.db -0 .so | wc -c"
hyperfine --warmup 3 --runs 30 --export-json "$work/r.json" "$tvl_cmd" "$plocate_cmd" >/dev/null 2>&1 ||
  hyperfine --warmup 1 --runs 3 "$tvl_cmd" "$plocate_cmd"
a=$(median "$work/r.json" 0); b=$(median "$work/r.json" 1)
tvl_count=$("$tvl" query --count ext:so)
plocate_count=$(plocate -d "$work/plocate.db" -c .so)
printf '%-34s %10s %10s\n' command median_ms matches
printf '%-34s %10.2f %10s\n' "tvl query --limit 0 -0 ext:so" "$a" "$tvl_count"
printf '%-34s %10.2f %10s\n' "plocate -0 .so" "$b" "$plocate_count"
python3 -c "print(f'ratio tvl/plocate: {$a/$b:.2f} (goal <= 1.50)')"
