#!/usr/bin/env bash
# Times `tvl search` against plocate on the same tree, whole process, warm cache.
#
#   bench/compare-search.sh [TREE]
#
# TREE defaults to the large tree of scripts/make-large-tree. The tree is scanned into a private
# HOME and indexed by plocate's updatedb into a private database; then hyperfine runs each query
# with `tvl search Q`, `plocate -d DB -i -l 20 Q` (case-insensitive, like tvl) and
# `plocate -d DB -l 20 Q`, and the ratios are printed. Needs hyperfine and plocate
# (scripts/install-deps).
set -euo pipefail
cd "$(dirname "$0")/.."
tree=${1:-/tmp/tarvolin-large-tree}
[ -d "$tree" ] || scripts/make-large-tree "$tree"
tvl=$PWD/build/release/tvl
[ -x "$tvl" ] || { echo "build the release preset first" >&2; exit 1; }

work=$(mktemp -d /tmp/tarvolin-compare-XXXXXX)
trap 'rm -rf "$work"' EXIT
export HOME=$work/home
mkdir -p "$HOME"
"$tvl" scan "$tree" >/dev/null
updatedb -l 0 -U "$tree" -o "$work/plocate.db"

# rare word, common word, extension, two words, regular expression
queries=("${QUERIES[@]:-}")
if [ -z "${queries[0]}" ]; then
  queries=(libxml2 python config ".py" "python3 config")
fi
regex='^lib[a-z]+[0-9]+\.so$'

printf '%-24s %12s %12s %12s %10s %10s\n' query tvl_ms plocate-i_ms plocate_ms 'tvl/-i' 'tvl/plain'
median() { # hyperfine json -> median ms of command $2
  python3 -c "import json,sys; print(json.load(open(sys.argv[1]))['results'][int(sys.argv[2])]['median']*1000)" "$1" "$2"
}
for q in "${queries[@]}"; do
  hyperfine -N --warmup 3 --runs 30 --export-json "$work/r.json" \
    "$tvl search $q" "plocate -d $work/plocate.db -i -l 20 $q" "plocate -d $work/plocate.db -l 20 $q" >/dev/null 2>&1
  t=$(median "$work/r.json" 0); pi=$(median "$work/r.json" 1); p=$(median "$work/r.json" 2)
  printf '%-24s %12.2f %12.2f %12.2f %10.2f %10.2f\n' "$q" "$t" "$pi" "$p" \
    "$(python3 -c "print($t/$pi)")" "$(python3 -c "print($t/$p)")"
done
hyperfine -N --warmup 2 --runs 10 --export-json "$work/r.json" \
  "$tvl search /$regex/" "plocate -d $work/plocate.db --regex -l 20 $regex" >/dev/null 2>&1
t=$(median "$work/r.json" 0); p=$(median "$work/r.json" 1)
printf '%-24s %12.2f %12s %12.2f %10s %10.2f\n' "/regex/" "$t" "-" "$p" "-" "$(python3 -c "print($t/$p)")"
