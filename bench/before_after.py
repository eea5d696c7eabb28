#!/usr/bin/env python3
"""Two builds side by side: runs compare_dovecot.py, first_stat_floor.py, log_cost.py or proxy_cost.py against the
older binaries and the newer ones in turn (before, after, before, after, ...), and prints each of its ratio lines for
both, as a table.

Run by hand after building both:
    bench/before_after.py --before-gateway OLD/tarnwick-gateway --before-webmail OLD/tarnwick-webmail \\
        [--build build] [--rounds 3] [--log FILE] SCRIPT [SCRIPT'S OPTIONS...]
for example  bench/before_after.py --before-gateway old/app/tarnwick-gateway \\
        --before-webmail old/webmail/tarnwick-webmail first_stat_floor.py --pairs 5
Each round runs SCRIPT once per build, with --gateway and --webmail set. For every ratio the script prints, the
table gives the median of the rounds' ratios and, in brackets, the lowest and highest single pair seen over all
rounds; for a memory figure, the median and range of the rounds' medians.
With --before-tree OLD (a checkout of the older version, e.g. made by "git worktree add"), the older build runs
with that checkout's own copy of SCRIPT and the files it reads (the packaged nginx example, say), so that a change
of configuration counts on the side it belongs to.
"""

import argparse
import os
import re
import statistics
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import bench_support as B  # noqa: E402

MEMORY = re.compile(r"^(.*?memory[^:]*): ([0-9.]+) MB(.*)$")
PER_COMMAND = re.compile(r"^(.*?, per command at \d+ commands): ([0-9.]+) ms$")


def run(script, extra, gateway, webmail, log, tree=None):
    bench = os.path.join(tree, "bench") if tree else HERE
    command = [sys.executable, os.path.join(bench, script), "--gateway", gateway, "--webmail", webmail] + extra
    out = subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True).stdout
    if log:
        log.write("$ %s\n%s\n" % (" ".join(command), out))
        log.flush()
    found = {}
    for line in out.splitlines():
        m = B.RATIO_LINE.match(line)
        if m:
            goal = re.search(r"\[goal ([^\]]*)\]", m.group(5))
            found[m.group(1)] = (float(m.group(2)), float(m.group(3)), float(m.group(4)), goal.group(1) if goal else "",
                                 "x")
            continue
        m = MEMORY.match(line) or PER_COMMAND.match(line)
        if m:
            value = float(m.group(2))
            goal = re.search(r"\[goal ([^\]]*)\]", m.group(3)) if m.re is MEMORY else None
            goal = goal.group(1) if goal else ""
            found[m.group(1)] = (value, value, value, goal, "MB" if m.re is MEMORY else "ms")
    return found


def summary(rounds, name):
    values = [r[name] for r in rounds if name in r]
    if not values:
        return "-"
    unit = values[0][4]
    middle = statistics.median(v[0] for v in values)
    low, high = min(v[1] for v in values), max(v[2] for v in values)
    if unit == "x":
        return "%.2f (%.2f-%.2f)" % (middle, low, high)
    return "%.3g %s (%.3g-%.3g)" % (middle, unit, low, high)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--before-gateway", required=True)
    parser.add_argument("--before-webmail", required=True)
    parser.add_argument("--build", default=os.path.join(B.ROOT, "build"), help="the newer build")
    parser.add_argument("--after-gateway")
    parser.add_argument("--after-webmail")
    parser.add_argument("--before-tree", help="a checkout of the older version whose bench/SCRIPT runs the older build")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--log", help="also write every run's whole output here")
    parser.add_argument("script")
    parser.add_argument("extra", nargs=argparse.REMAINDER)
    args = parser.parse_args()
    after_gateway, after_webmail = B.default_binaries(args.build)
    builds = [("before", args.before_gateway, args.before_webmail, args.before_tree),
              ("after", args.after_gateway or after_gateway, args.after_webmail or after_webmail, None)]
    if args.before_tree and not os.path.isfile(os.path.join(args.before_tree, "bench", args.script)):
        raise SystemExit("no bench/%s in %s" % (args.script, args.before_tree))
    for _, gateway, webmail, _ in builds:
        for b in (gateway, webmail):
            if not os.access(b, os.X_OK):
                raise SystemExit("not an executable: %s" % b)
    log = open(args.log, "a") if args.log else None
    results = {name: [] for name, _, _, _ in builds}
    names = []
    for i in range(args.rounds):
        for name, gateway, webmail, tree in builds:
            print("round %d, %s ..." % (i + 1, name), file=sys.stderr, flush=True)
            found = run(args.script, args.extra, gateway, webmail, log, tree)
            results[name].append(found)
            names += [n for n in found if n not in names]
    print("%s %s, %d rounds" % (args.script, " ".join(args.extra), args.rounds))
    print("| measure | before | after | goal |")
    print("|---|---|---|---|")
    for n in names:
        goal = next((r[n][3] for r in results["after"] + results["before"] if n in r and r[n][3]), "")
        print("| %s | %s | %s | %s |" % (n, summary(results["before"], n), summary(results["after"], n), goal))


if __name__ == "__main__":
    main()
