#!/usr/bin/env python3
"""summary.py RESULTS: medians, ratios and targets of bench/compare.sh. A line: TREE WHAT VALUE."""
import collections
import statistics
import sys

results = collections.defaultdict(lambda: collections.defaultdict(list))
for line in open(sys.argv[1], encoding="utf-8"):
    tree, what, value = line.split()
    results[tree][what].append(float(value))

start = statistics.median(results["start"]["program"]) if results["start"] else 0.0
STARTED = ("xcopy", "rd")  # timed from outside: what a program's start costs is taken off


def median(tree, what):
    value = statistics.median(results[tree][what])
    return max(value - start, 0.001) if what in STARTED else value


def show(title, tree, ours, others):
    mine = median(tree, ours)
    print(f"{tree:8}{title:10}{mine:11.0f} ms", end="")
    for other in filter(results[tree].get, others):
        theirs = median(tree, other)
        print(f"   {other} {theirs:.0f} ({mine / theirs:.2f})", end="")
    print()


targets = []


def target(text, value, limit, unit=""):
    targets.append(f"{'PASS' if value <= limit else 'MISS'}  {text}: {value:.2f}{unit} (at most {limit}{unit})")


trees = [tree for tree in ("small", "large", "empty", "deep") if results[tree]]
if trees:
    rounds = len(results[trees[0]]["copy"])
    print(f"\nMedians of {rounds} rounds, in brackets ours divided by theirs; a program's start ({start:.0f} ms) is taken off")
for tree in trees:
    show("copy", tree, "copy", ("xcopy", "loop", "cp", "rsync"))
    show("removal", tree, "removal", ("rd", "rm"))
    if tree in ("small", "empty"):
        target(f"{tree} files, copy against xcopy", median(tree, "copy") / median(tree, "xcopy"), 0.7)
        target(f"{tree} files, copy against the CopyFileW loop", median(tree, "copy") / median(tree, "loop"), 1.2)
        target(f"{tree} files, removal against rd", median(tree, "removal") / median(tree, "rd"), 0.3)
    if tree == "large":
        target("large files, copy against cp -a", median(tree, "copy") / median(tree, "cp"), 1.1)

renames = {int(files): statistics.median(times) for files, times in results["rename"].items()}
if renames:
    print("rename  " + "   ".join(f"{files} files {time:.1f} ms" for files, time in sorted(renames.items())))
    few, many = min(renames), max(renames)
    target(f"rename of {many} files against one of {few}", renames[many] / renames[few], 1.5)
for item, calls in results["backup"].items():
    target(f"Win32 calls a copied {item}, backup path", max(calls), 14)
for files, peaks in results["memory"].items():
    print(f"memory  {files} files: {max(peaks) / 1024:.1f} MiB at the peak")
    target(f"memory with {files} files", max(peaks) / 1024, 64, " MiB")
if results["vhosts"]:
    of = {what: statistics.median(map(float, values)) for what, values in results["vhosts"].items()}
    tree, starts = of["copy"] + of["removal"], of["replay"] / 2  # the calls of two moves
    own = of["whole"] - tree - starts
    print(f"vhosts  {of['domains']:.0f} domains, {of['files']:.0f} files: the whole move {of['whole']:.0f} ms; "
          f"the bare one of the tree {tree:.0f} (copy {of['copy']:.0f}, removal {of['removal']:.0f}; {of['whole'] / tree:.2f}), "
          f"{of['starts'] / 2:.0f} bare starts of utilities {starts:.0f}; "
          f"the rest {own:.0f}, {own / of['domains']:.1f} a domain ({of['whole'] / (tree + starts):.2f} times the two)")
if targets:
    print("\n" + "\n".join(targets))
