#!/usr/bin/env bash
# Times tvl's content side against ripgrep and recoll on one folder of documents, whole process,
# warm cache, with hyperfine:
#   1. `tvl content DIR` against `recollindex` of the same folder (goal: at most 0.5x recoll);
#   2. `tvl find WORD` against `rg -i -l -F WORD DIR` (goal: at most 0.5x) and against
#      `recollq -b WORD` (goal: at most 1.0x), for a rare and a common word;
#   3. `tvl search 'ext:txt contains:WORD'` against `rg -i -l -F -g '*.txt' WORD DIR` over the
#      same text files;
# then counts the documents each tool reports for the rare word, by kind, to show which kinds
# each can read (rg sees no words inside PDF or Office files).
#
#   bench/compare-content.sh [DIR]
#
# DIR defaults to the tree of scripts/make-doc-tree (built first when missing), whose planted
# word "quuxinvoice4711" is the rare word; the common word is "license". tvl is taken from
# build/release unless TVL names another binary (tvl-pdftext must lie beside it). Everything runs
# under a throw-away HOME, recoll with a throw-away configuration folder. INDEX_RUNS (default 3)
# sets the timed runs of each indexer, QUERY_RUNS (default 20) those of each query. Needs
# hyperfine, ripgrep and recoll (scripts/install-deps). hyperfine runs the commands without a
# shell; paths holding a single quote are not supported.
set -euo pipefail
cd "$(dirname "$0")/.."

dir="${1:-}"
if [ -z "$dir" ]; then
  dir=/tmp/tarvolin-doc-tree
  scripts/make-doc-tree "$dir"
fi
dir="$(cd "$dir" && pwd)"
tvl="$(realpath "${TVL:-build/release/tvl}")"
rare=quuxinvoice4711
common=license
index_runs=${INDEX_RUNS:-3}
query_runs=${QUERY_RUNS:-20}
kinds=(txt md pdf docx xlsx)

[ -x "$tvl" ] || { echo "missing $tvl: build the release preset first" >&2; exit 1; }
[ -x "$(dirname "$tvl")/tvl-pdftext" ] || { echo "missing tvl-pdftext beside $tvl" >&2; exit 1; }
for tool in hyperfine rg recollindex recollq; do
  command -v "$tool" >/dev/null || { echo "missing $tool: run scripts/install-deps" >&2; exit 1; }
done

work="$(mktemp -d /tmp/tarvolin-compare-content-XXXXXX)"
trap 'rm -rf "$work"' EXIT
export HOME="$work/home"
conf="$work/recoll"
mkdir -p "$HOME" "$conf"
# recoll keeps its index, status and logs in the configuration folder and writes nothing outside
# it and the throw-away HOME; no spelling dictionary (aspell) is built; hidden files are skipped,
# as tvl and rg skip them.
cat > "$conf/recoll.conf" <<EOF
topdirs = $dir
noaspell = 1
loglevel = 1
skippedNames+ = .*
EOF

# hyperfine quietly; its own report only when it fails.
quiet_hyperfine() {
  hyperfine -N "$@" >"$work/hyperfine.log" 2>&1 || { cat "$work/hyperfine.log" >&2; exit 1; }
}
load() { echo "load: $(uptime | sed 's/.*load average: //') ($(nproc) cores)"; }
printf 'Tree: %s\n' "$dir"
for kind in "${kinds[@]}"; do
  find "$dir" -type f -iname "*.$kind" -not -path '*/.*' -printf "$kind %s\n"
done | awk '{n[$1]++; s[$1] += $2; order[$1] = order[$1] ? order[$1] : ++kinds; N++; S += $2}
  END {for (k in order) line[order[k]] = sprintf("  %-5s %5d files, %6.1f MB", k, n[k], s[k] / 1e6)
       for (i = 1; i <= kinds; i++) print line[i]
       printf "  all   %5d documents, %6.1f MB\n", N, S / 1e6}'
echo

# 1. Building the content index. A warm-up run of each puts the tree in the page cache;
# recollindex -z starts from an empty database every time.
load
echo "Indexing ($index_runs runs each)..."
quiet_hyperfine --warmup 1 --runs "$index_runs" --export-json "$work/index.json" \
  -n "tvl content" "'$tvl' content '$dir'" \
  -n "recollindex" "recollindex -c '$conf' -z"
"$tvl" content "$dir" | tail -2
side="$HOME/Library/Application Support/Tarvolin/content.tri"
if [ -f "$side" ]; then
  echo "  trigram side file: $(stat -c %s "$side" | awk '{printf "%.1f MB", $1 / 1e6}')"
else
  echo "  no trigram side file: tvl find scans the whole index"
fi
"$tvl" scan "$dir" >/dev/null

# 2. Searching the index, against a fresh read of every file by rg.
for word in "$rare" "$common"; do
  load
  echo "Finding \"$word\" ($query_runs runs each)..."
  quiet_hyperfine -i --warmup 3 --runs "$query_runs" --export-json "$work/find-$word.json" \
    -n "tvl find" "'$tvl' find $word" \
    -n "rg" "rg -i -l -F $word '$dir'" \
    -n "recollq" "recollq -c '$conf' -b $word"
done

# 3. Direct search of the text files narrowed by name, against rg over the same files.
for word in "$rare" "$common"; do
  load
  echo "Searching the .txt files for \"$word\" ($query_runs runs each)..."
  quiet_hyperfine -i --warmup 3 --runs "$query_runs" --export-json "$work/contains-$word.json" \
    -n "tvl search" "'$tvl' search 'ext:txt contains:$word'" \
    -n "rg -g *.txt" "rg -i -l -F -g '*.txt' $word '$dir'"
done

# Which documents each tool reports for the rare word. tvl find prints at most ten names, so its
# kinds are also counted with one contains: search per extension (which reads the files).
"$tvl" find "$rare" > "$work/tvl-find.txt"
rg -i -l -F "$rare" "$dir" > "$work/rg.txt" || true
recollq -c "$conf" -b "$rare" 2>/dev/null | sed 's|^file://||' > "$work/recollq.txt" || true
for kind in "${kinds[@]}"; do
  "$tvl" search "ext:$kind contains:$rare" | grep "^  $dir" | sed 's/^  //' || true
done > "$work/tvl-contains.txt"
cp "$dir/.planted" "$work/planted.txt" 2>/dev/null || : > "$work/planted.txt"
load

python3 - "$work" "$rare" "$common" "${kinds[@]}" <<'PYTHON'
import json
import os
import re
import sys

work, rare, common, kinds = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]


def results(name):
    return {r["command"]: r for r in json.load(open(os.path.join(work, name)))["results"]}


def ms(r):
    return f"{r['median'] * 1000:8.1f} ms median {r['mean'] * 1000:8.1f} mean"


def busy(r):  # processors kept busy: CPU time (user + system, children included) over wall time
    return (r["user"] + r["system"]) / r["mean"]


def goal(ratio, limit):
    return f"{ratio:5.2f}x (goal <= {limit:.1f}x: {'met' if ratio <= limit else 'MISSED'})"


index = results("index.json")
t, r = index["tvl content"], index["recollindex"]
print("\nBuilding the index (mean of the timed runs; cpu/wall = user + system over wall)")
print(f"  tvl content   {t['mean']:7.2f} s   user {t['user']:6.2f} s  sys {t['system']:5.2f} s  "
      f"cpu/wall {busy(t):.2f}")
print(f"  recollindex   {r['mean']:7.2f} s   user {r['user']:6.2f} s  sys {r['system']:5.2f} s  "
      f"cpu/wall {busy(r):.2f}")
print(f"  tvl / recoll  {goal(t['mean'] / r['mean'], 0.5)}")

for word in (rare, common):
    f = results(f"find-{word}.json")
    t, g, q = f["tvl find"], f["rg"], f["recollq"]
    print(f"\ntvl find {word}")
    print(f"  tvl find      {ms(t)}   cpu/wall {busy(t):.2f}")
    print(f"  rg -i -l -F   {ms(g)}   cpu/wall {busy(g):.2f}")
    print(f"  recollq -b    {ms(q)}   cpu/wall {busy(q):.2f}")
    print(f"  tvl / rg      {goal(t['median'] / g['median'], 0.5)}")
    print(f"  tvl / recollq {goal(t['median'] / q['median'], 1.0)}")

for word in (rare, common):
    c = results(f"contains-{word}.json")
    t, g = c["tvl search"], c["rg -g *.txt"]
    print(f"\ntvl search 'ext:txt contains:{word}'")
    print(f"  tvl search    {ms(t)}   cpu/wall {busy(t):.2f}")
    print(f"  rg -g '*.txt' {ms(g)}   cpu/wall {busy(g):.2f}")
    print(f"  tvl / rg      {t['median'] / g['median']:5.2f}x")


def kind_of(path):
    return os.path.splitext(path.strip())[1].lstrip(".").lower()


def lines(name):
    return [l.strip() for l in open(os.path.join(work, name)) if l.strip()]


def row(label, total, found):
    cells = "".join(f"{sum(kind_of(p) == k for p in found):6d}" for k in kinds)
    print(f"  {label:38s}{total:6d}{cells}")


print(f"\nDocuments reported for \"{rare}\"")
print(f"  {'':38s}{'total':>6s}" + "".join(f"{k:>6s}" for k in kinds))
planted = lines("planted.txt")
row("planted in the tree", len(planted), planted)
find_lines = open(os.path.join(work, "tvl-find.txt")).read()
summary = re.search(r"^(\d+)\+? documents contain", find_lines, re.M)
listed = [l.strip() for l in find_lines.splitlines() if l.startswith("  ") and
          not l.startswith("      ")]
row("tvl find (kinds of the 10 it lists)", int(summary.group(1)) if summary else 0, listed)
contains = lines("tvl-contains.txt")
row("tvl search ext:K contains: (each K)", len(contains), contains)
recoll = lines("recollq.txt")
row("recollq -b", len(recoll), recoll)
found = lines("rg.txt")
row("rg -i -l -F", len(found), found)
PYTHON
