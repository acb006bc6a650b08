#!/usr/bin/env python3
"""make_tree.py PLACE FOLDERS FILES BYTES [chain]: makes a tree of FILES files of BYTES bytes, spread
over FOLDERS folders, forty of them in one, or with "chain" each in the one before."""
import os
import sys

place, folders, files, size = sys.argv[1], *map(int, sys.argv[2:5])
chain = sys.argv[5:] == ["chain"]
block = os.urandom(min(size, 1 << 20))


def fill(handle):
    left = size
    while left > 0:
        left -= handle.write(block[:left])


os.mkdir(place)
os.chdir(place)
top = os.getcwd()
made = 0
for folder in range(folders):
    if chain:
        os.mkdir(f"folder {folder:05}")
        os.chdir(f"folder {folder:05}")
    else:
        os.chdir(top)
        if folders > 1:
            os.makedirs(f"group {folder // 40:03}/folder {folder:05}")
            os.chdir(f"group {folder // 40:03}/folder {folder:05}")
    while made < files * (folder + 1) // folders:
        with open(f"file {made:06}.dat", "wb") as out:
            fill(out)
        made += 1
