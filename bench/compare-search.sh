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

# Pairs "tvl query|plocate pattern": a rare word, a common word, an extension, two words.
# plocate has no ext: operator, so the extension is matched as the text ".py" there.
pairs=("libxml2|libxml2" "python|python" "ext:py|.py" "python3 config|python3 config")
regex='lib[a-z]+[0-9]+\.so$'

median() { # hyperfine json -> median ms of command $2
  python3 -c "import json,sys; print(json.load(open(sys.argv[1]))['results'][int(sys.argv[2])]['median']*1000)" "$1" "$2"
}
ratio() { python3 -c "print(f'{$1/$2:.2f}')"; }
busy() { # hyperfine json -> CPU (user + sys) over wall of command $2: processors kept busy
  python3 -c "import json,sys; r=json.load(open(sys.argv[1]))['results'][int(sys.argv[2])]; print(f\"{(r['user']+r['system'])/r['mean']:.2f}\")" "$1" "$2"
}

printf '%-24s %10s %9s %12s %12s %8s %8s\n' query tvl_ms cpu/wall plocate-i_ms plocate_ms 'vs -i' 'vs plain'
for pair in "${pairs[@]}"; do
  t=${pair%%|*}; p=${pair#*|}
  hyperfine -N --warmup 3 --runs 30 --export-json "$work/r.json" \
    "$tvl search $t" "plocate -d $work/plocate.db -i -l 20 $p" "plocate -d $work/plocate.db -l 20 $p" \
    >/dev/null 2>&1
  a=$(median "$work/r.json" 0); b=$(median "$work/r.json" 1); c=$(median "$work/r.json" 2)
  printf '%-24s %10.2f %9s %12.2f %12.2f %8s %8s\n' "$t" "$a" "$(busy "$work/r.json" 0)" "$b" "$c" \
    "$(ratio "$a" "$b")" "$(ratio "$a" "$c")"
done
hyperfine -N --warmup 2 --runs 10 --export-json "$work/r.json" \
  "$tvl search /$regex/" "plocate -d $work/plocate.db --regex -l 20 $regex" >/dev/null 2>&1
a=$(median "$work/r.json" 0); c=$(median "$work/r.json" 1)
printf '%-24s %10.2f %9s %12s %12.2f %8s %8s\n' "/regex/" "$a" "$(busy "$work/r.json" 0)" "-" "$c" "-" \
  "$(ratio "$a" "$c")"
