#!/usr/bin/env python3
"""Change-to-searchable latency of a running `tvl serve`.

    bench/service-change-latency.py TVL FOLDER

FOLDER must lie inside a tree the service watches; it is made, used and removed. `tvl search`
(which goes through the service) is polled every 5 ms until a change shows.

1. single files: 100 files made one at a time at random moments; for each, the time from its
   creation to the first search that finds it.
2. bursts: 10 bursts of 1,000 files made at once, then removed at once; for each burst, the time
   from the last creation (or removal) to the search that shows all of them (or none).
3. a folder of 10,000 entries: one file added to it and one to a small folder, alternately, 20
   times each; the difference of the medians is the cost of listing 10,000 entries again.
"""
import os
import random
import re
import shutil
import statistics
import subprocess
import sys
import time

tvl, folder = sys.argv[1], sys.argv[2]


def matches(token):
    out = subprocess.run([tvl, "search", token], capture_output=True, text=True).stdout
    found = re.search(r"^(\d+) matches", out, re.M)
    return int(found.group(1)) if found else -1


def wait_for(token, count, since):
    deadline = since + 30
    while time.perf_counter() < deadline:
        if matches(token) == count:
            return (time.perf_counter() - since) * 1000
        time.sleep(0.005)
    return float("inf")


def percentile(values, share):
    values = sorted(values)
    return values[min(len(values) - 1, int(share * len(values)))]


def report(name, values):
    print(f"{name:34} p50 {percentile(values, 0.5):7.1f} ms   p99 {percentile(values, 0.99):7.1f} ms"
          f"   max {max(values):7.1f} ms   (n={len(values)})")


shutil.rmtree(folder, ignore_errors=True)
os.makedirs(folder)
time.sleep(0.5)
random.seed(7)

singles = []
for i in range(100):
    time.sleep(random.uniform(0, 0.1))
    token = f"zqsingle{i}x"
    open(os.path.join(folder, token), "w").close()
    singles.append(wait_for(token, 1, time.perf_counter()))
report("single file made -> found", singles)

bursts = []
for b in range(10):
    burst = os.path.join(folder, f"burst{b}")
    os.makedirs(burst)
    token = f"zqburst{b}n"
    for i in range(1000):
        open(os.path.join(burst, f"{token}{i}"), "w").close()
    bursts.append(wait_for(token, 1000, time.perf_counter()))
    for i in range(1000):
        os.unlink(os.path.join(burst, f"{token}{i}"))
    bursts.append(wait_for(token, 0, time.perf_counter()))
report("burst of 1,000 made/removed -> seen", bursts)

big = os.path.join(folder, "big")
small = os.path.join(folder, "small")
os.makedirs(big)
os.makedirs(small)
for i in range(10000):
    open(os.path.join(big, f"entry{i}"), "w").close()
wait_for("entry9999", 1, time.perf_counter())
in_big, in_small = [], []
for i in range(20):
    for target, times in ((big, in_big), (small, in_small)):
        token = f"zqrelist{i}{os.path.basename(target)}x"
        open(os.path.join(target, token), "w").close()
        times.append(wait_for(token, 1, time.perf_counter()))
report("file added to a 10,000-entry folder", in_big)
report("file added to a small folder", in_small)
print(f"listing 10,000 entries again costs about "
      f"{statistics.median(in_big) - statistics.median(in_small):.1f} ms (difference of medians)")
shutil.rmtree(folder)
