#!/usr/bin/env python3
"""Checks that the library's folders include only the folders below them.

Each folder has a rank; a file may include headers of its own folder and of
folders of a lower rank only. Folders of equal rank (the recorder folders) never
include each other, so no two folders can ever
include each other. Prints every offending include and exits 1 if there is one.
"""
import os
import re
import sys

RANKS = {
    "foundation": 0,
    "platform": 1,
    "output": 2,
    "timing": 3,
    "session": 4,
    "audio": 5,
    "video": 5,
    "metadata": 5,
    "sources": 5,
    "host": 6,
}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([a-z_]+)/')

def main() -> int:
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    bad = []
    for folder, rank in RANKS.items():
        for dirpath, _, files in os.walk(os.path.join(root, folder)):
            for name in files:
                if not name.endswith((".h", ".hpp", ".cpp", ".c")):
                    continue
                path = os.path.join(dirpath, name)
                with open(path, encoding="utf-8", errors="replace") as f:
                    for number, line in enumerate(f, 1):
                        m = INCLUDE.match(line)
                        if not m or m.group(1) not in RANKS or m.group(1) == folder:
                            continue
                        if RANKS[m.group(1)] >= rank:
                            bad.append(f"{os.path.relpath(path, root)}:{number}: {folder}/ includes {m.group(1)}/")
    for line in bad:
        print(line)
    print(f"layers: {len(bad)} include(s) that look up or sideways")
    return 1 if bad else 0

if __name__ == "__main__":
    sys.exit(main())
