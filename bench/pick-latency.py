#!/usr/bin/env python3
"""Keystroke-to-redraw latency of `tvl pick`, driven through a pseudo-terminal.

Types each query of `tvl bench` one character at a time into a running `tvl pick`, and times
each keystroke from the write of the key to the last byte of the screen update it causes (an
update is over when the terminal stays quiet for --quiet-ms). Reports p50, p99 and the maximum,
with a search session in the tool itself and, with --service, through a running `tvl serve`.
Also compares the first result of each query: `tvl pick QUERY` from start to its first full
screen, against `fdfind . TREE | fzf --filter QUERY | head -n1`.

Usage: bench/pick-latency.py --tvl build/p-rel/tvl --home HOME --tree TREE [--service]
HOME must hold an index of TREE (HOME=HOME tvl scan TREE).
"""

import argparse
import fcntl
import os
import pty
import select
import shlex
import signal
import statistics
import struct
import subprocess
import sys
import termios
import time

QUERIES = ["a", "report", "playground", "ext:swift", "size:>10mb", "ext:swift size:>10mb",
           "ext:txt | ext:bin", "ext:txt,bin", "!ext:swift", "/^IMG_\\d+/"]


class Pane:
    """tvl pick on the slave side of a pseudo-terminal of ROWS x COLS."""

    def __init__(self, tvl, home, args, rows, cols):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.environ["HOME"] = home
            os.environ["TERM"] = "xterm-256color"
            os.environ.pop("NO_COLOR", None)
            with open(os.devnull, "wb") as null:
                os.dup2(null.fileno(), 1)  # the selection; the screen goes to /dev/tty
            os.execv(tvl, [tvl, "pick"] + args)
        fcntl.ioctl(self.fd, termios.TIOCSWINSZ, struct.pack("HHHH", rows, cols, 0, 0))
        self.started = time.perf_counter()

    def settle(self, quiet_ms, limit_s=30.0, until=None):
        """Reads until the terminal is quiet (and, with `until`, has shown those bytes); returns
        (time of the last byte, bytes read)."""
        last = None
        total = 0
        seen = b""
        deadline = time.perf_counter() + limit_s
        while time.perf_counter() < deadline:
            waiting = last is None or (until is not None and until not in seen)
            wait = limit_s if waiting else quiet_ms / 1000.0
            ready, _, _ = select.select([self.fd], [], [], wait)
            if not ready:
                break
            try:
                chunk = os.read(self.fd, 65536)
            except OSError:
                break
            if not chunk:
                break
            last = time.perf_counter()
            total += len(chunk)
            if until is not None and until not in seen:
                seen = (seen + chunk)[-4096:]
        return last, total

    def key(self, data, quiet_ms):
        sent = time.perf_counter()
        os.write(self.fd, data)
        last, _ = self.settle(quiet_ms)
        return None if last is None else (last - sent) * 1000.0

    def close(self):
        try:
            os.write(self.fd, b"\x1b")
            deadline = time.perf_counter() + 5
            while time.perf_counter() < deadline:
                done, _ = os.waitpid(self.pid, os.WNOHANG)
                if done:
                    break
                self.settle(20, 0.1)
            else:
                os.kill(self.pid, signal.SIGKILL)
                os.waitpid(self.pid, 0)
        finally:
            os.close(self.fd)


def percentile(values, p):
    ordered = sorted(values)
    if not ordered:
        return float("nan")
    index = min(len(ordered) - 1, max(0, round(p / 100.0 * len(ordered) + 0.5) - 1))
    return ordered[index]


def typing_run(args, label):
    pane = Pane(args.tvl, args.home, [], args.rows, args.cols)
    opened, _ = pane.settle(args.quiet_ms, until=b"match")
    open_ms = (opened - pane.started) * 1000.0
    latencies = []
    per_query = []
    for query in QUERIES:
        times = []
        for ch in query:
            ms = pane.key(ch.encode(), args.quiet_ms)
            if ms is not None:
                times.append(ms)
        per_query.append((query, times))
        latencies += times
        pane.key(b"\x15", args.quiet_ms)  # Ctrl-U: a new typing run
    pane.close()
    print(f"{label}: open {open_ms:.1f} ms; {len(latencies)} keystrokes: "
          f"p50 {percentile(latencies, 50):.2f} ms, p99 {percentile(latencies, 99):.2f} ms, "
          f"max {max(latencies):.2f} ms")
    for query, times in per_query:
        print(f"    {query:<22} " + " ".join(f"{t:.1f}" for t in times))


def first_results(args):
    print("first result (ms): tvl pick QUERY to its first screen, against fdfind | fzf --filter")
    for query in QUERIES:
        runs = []
        for _ in range(args.repeat):
            pane = Pane(args.tvl, args.home, [query], args.rows, args.cols)
            shown, _ = pane.settle(args.quiet_ms, until=b"match")
            runs.append((shown - pane.started) * 1000.0)
            pane.close()
        tvl_ms = statistics.median(runs)
        fzf_runs = []
        command = (f"fdfind --hidden --no-ignore . {shlex.quote(args.tree)} | "
                   f"fzf --filter {shlex.quote(query)} | head -n1 >/dev/null")
        for _ in range(args.repeat):
            start = time.perf_counter()
            subprocess.run(["sh", "-c", command], check=False)
            fzf_runs.append((time.perf_counter() - start) * 1000.0)
        fzf_ms = statistics.median(fzf_runs)
        print(f"    {query:<22} tvl pick {tvl_ms:8.1f}   fd|fzf {fzf_ms:8.1f}   "
              f"ratio {fzf_ms / tvl_ms:6.1f}x")


def start_service(args):
    socket = os.path.join(args.home, "Library/Application Support/Tarvolin/tvl.sock")
    service = subprocess.Popen([args.tvl, "serve", args.tree], env=dict(os.environ, HOME=args.home),
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.time() + 600
    while time.time() < deadline and not os.path.exists(socket):
        if service.poll() is not None:
            sys.exit("tvl serve ended before it listened")
        time.sleep(0.2)
    return service


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tvl", required=True)
    parser.add_argument("--home", required=True)
    parser.add_argument("--tree", required=True)
    parser.add_argument("--service", action="store_true", help="also measure through tvl serve")
    parser.add_argument("--rows", type=int, default=40)
    parser.add_argument("--cols", type=int, default=120)
    parser.add_argument("--quiet-ms", type=float, default=80)
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--skip-fzf", action="store_true")
    args = parser.parse_args()
    args.tvl = os.path.abspath(args.tvl)

    print(f"processors busy: {os.getloadavg()[0]:.1f} (1-minute load, {os.cpu_count()} processors)")
    typing_run(args, "in-process session")
    if not args.skip_fzf:
        first_results(args)
    if args.service:
        service = start_service(args)
        try:
            typing_run(args, "through tvl serve")
        finally:
            service.send_signal(signal.SIGTERM)
            service.wait(timeout=120)


if __name__ == "__main__":
    main()
