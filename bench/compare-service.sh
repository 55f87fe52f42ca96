#!/usr/bin/env bash
# Times `tvl search` answered by a running `tvl serve` against plocate on the same tree, whole
# process, warm cache; then one keystroke of a typing session on an open connection, and the
# service's memory against the size of its index file.
#
#   bench/compare-service.sh [TREE]
#
# TREE defaults to the large tree of scripts/make-large-tree. The tree is scanned into a private
# HOME, `tvl serve` is started on it, and plocate's updatedb indexes it into a private database.
# hyperfine runs `tvl search Q` (through the service), the same without the service is not
# repeated here (see compare-search.sh), and `plocate -d DB -i -l 20 Q`. The keystroke figures
# come from a small client that types every query of `tvl bench` one character at a time on one
# connection and times each request. Then the background tax: the service's CPU time and context
# switches over a minute with nothing changing; change-to-searchable latencies
# (bench/service-change-latency.py, in a folder made inside TREE); and bytes written per hour while
# 10 files a second change (the index file is rewritten at most once per 30 s).
# Needs hyperfine, plocate and python3 (scripts/install-deps).
set -euo pipefail
cd "$(dirname "$0")/.."
tree=${1:-/tmp/tarvolin-large-tree}
[ -d "$tree" ] || scripts/make-large-tree "$tree"
tvl=${TVL:-$PWD/build/release/tvl}
[ -x "$tvl" ] || { echo "build the release preset first" >&2; exit 1; }

work=$(mktemp -d /tmp/tarvolin-service-XXXXXX)
export HOME=$work/home
mkdir -p "$HOME"
serve_pid=
cleanup() {
  [ -n "$serve_pid" ] && kill "$serve_pid" 2>/dev/null && wait "$serve_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
"$tvl" scan "$tree" >/dev/null
updatedb -l 0 -U "$tree" -o "$work/plocate.db"
"$tvl" serve >"$work/serve.log" 2>&1 &
serve_pid=$!
for _ in $(seq 200); do "$tvl" status >/dev/null 2>&1 && break; sleep 0.05; done
"$tvl" status >/dev/null || { cat "$work/serve.log" >&2; exit 1; }

pairs=("libxml2|libxml2" "python|python" "ext:py|.py" "python3 config|python3 config")
median() { python3 -c "import json,sys; print(json.load(open(sys.argv[1]))['results'][int(sys.argv[2])]['median']*1000)" "$1" "$2"; }
ratio() { python3 -c "print(f'{$1/$2:.2f}')"; }
busy() { python3 -c "import json,sys; r=json.load(open(sys.argv[1]))['results'][int(sys.argv[2])]; print(f\"{(r['user']+r['system'])/r['mean']:.2f}\")" "$1" "$2"; }

echo "tvl search through the service vs plocate -i -l 20 (median of 30 runs, warm)"
printf '%-20s %10s %9s %12s %9s %8s\n' query tvl_ms cpu/wall plocate-i_ms cpu/wall ratio
for pair in "${pairs[@]}"; do
  t=${pair%%|*}; p=${pair#*|}
  hyperfine -N --warmup 3 --runs 30 --export-json "$work/r.json" \
    "$tvl search $t" "plocate -d $work/plocate.db -i -l 20 $p" >/dev/null 2>&1
  a=$(median "$work/r.json" 0); b=$(median "$work/r.json" 1)
  printf '%-20s %10.2f %9s %12.2f %9s %8s\n' "$t" "$a" "$(busy "$work/r.json" 0)" "$b" \
    "$(busy "$work/r.json" 1)" "$(ratio "$a" "$b")"
done

echo
echo "one keystroke on an open connection (every prefix of each tvl bench query typed afresh, 5 rounds)"
python3 - "$HOME/Library/Application Support/Tarvolin/tvl.sock" <<'PY'
import json, socket, struct, sys, time
queries = ["a", "report", "playground", "ext:swift", "size:>10mb", "ext:swift size:>10mb",
           "ext:txt | ext:bin", "ext:txt,bin", "!ext:swift", "/^IMG_\\d+/"]
def connect():
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.connect(sys.argv[1])
    return s
def ask(s, text):
    body = json.dumps({"v": 1, "op": "search", "text": text, "keystroke": True, "limit": 20}).encode()
    s.sendall(struct.pack("<I", len(body)) + body)
    head = b""
    while len(head) < 4: head += s.recv(4 - len(head))
    n = struct.unpack("<I", head)[0]
    got = 0
    while got < n: got += len(s.recv(n - got))
# The session belongs to the connection: a new one for each round, so that no round finds the
# levels of the one before (typing "r" after "report" would be a backspace, answered from them).
print(f"{'query':22} {'first_ms':>8} {'p50_ms':>8} {'max_ms':>8}  (per keystroke)")
everything = []
for q in queries:
    times, first = [], []
    for _ in range(5):
        s = connect()
        for i in range(1, len(q) + 1):
            t0 = time.perf_counter(); ask(s, q[:i]); t = (time.perf_counter() - t0) * 1000
            times.append(t)
            if i == 1: first.append(t)
        s.close()
    everything += times
    times.sort(); first.sort()
    print(f"{q:22} {first[len(first)//2]:8.2f} {times[len(times)//2]:8.2f} {times[-1]:8.2f}")
everything.sort()
print(f"all {len(everything)} keystrokes: p50 {everything[len(everything)//2]:.2f} ms, "
      f"p99 {everything[int(len(everything)*0.99)]:.2f} ms")
PY

echo
"$tvl" status --json | python3 -c "
import json, sys
s = json.load(sys.stdin)
print(f\"memory: {s['residentBytes']/1e6:.1f} MB resident, index file {s['indexFileBytes']/1e6:.1f} MB, \"
      f\"ratio {s['residentBytes']/s['indexFileBytes']:.2f}x ({s['entries']} entries)\")"

pid=$serve_pid
cpu_ticks() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
switches() { cat /proc/$pid/task/*/status | awk '/ctxt_switches/ {n += $2} END {print n}'; }
echo
echo "idle: 60 s with nothing changing"
sleep 5
t0=$(cpu_ticks); s0=$(switches)
sleep 60
t1=$(cpu_ticks); s1=$(switches)
hz=$(getconf CLK_TCK)
python3 -c "print(f'  CPU {($t1-$t0)/$hz:.2f} s per minute = {($t1-$t0)/$hz*60:.2f} s per hour; {$s1-$s0} context switches in the minute')"

echo
echo "change to searchable"
python3 bench/service-change-latency.py "$tvl" "$tree/.tarvolin-bench-changes"

echo
echo "bytes written while 10 files a second change, for 65 s"
churn=$tree/.tarvolin-bench-churn
mkdir -p "$churn"
w0=$(awk '/^write_bytes/ {print $2}' /proc/$pid/io); c0=$(cpu_ticks)
for i in $(seq 650); do
  touch "$churn/f$((i % 50))"; [ $((i % 2)) = 0 ] && rm -f "$churn/f$(((i + 25) % 50))"
  sleep 0.1
done
w1=$(awk '/^write_bytes/ {print $2}' /proc/$pid/io); c1=$(cpu_ticks)
rm -rf "$churn"
python3 -c "print(f'  {($w1-$w0)/1e6:.1f} MB written in 65 s = {($w1-$w0)/1e6*3600/65/1e3:.2f} GB per hour; CPU {($c1-$c0)/$hz:.1f} s in 65 s')"

