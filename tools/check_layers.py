#!/usr/bin/env python3
"""Fails when a folder under src/ includes a header of a folder above it.

The library is built in layers; each folder may include headers of its own
folder and of the folders listed before it, never of those after it.  A new
folder must be given its place here.  Public headers (configmanager/...) and
system headers may be included anywhere.

Usage: check_layers.py [SRC_DIR]
"""
import os
import re
import sys

# Lowest first.
LAYERS = [
    "platform",   # seams: time, sleep, randomness, root directory, byte order
    "log",        # the log gate and its sink
    "catalogue",  # the variable tables and lookups
    "values",     # value forms
    "process",    # process-wide state: started, master, kill flag, inotify descriptor
    "storage",    # per-file state, locks, open/map, records, defaults, release
    "getset",     # get and set by ID, passwords, the MAC cache
    "text",       # text forms of values and their parser
    "notify",     # interest registry, changed-variable list
    "inotify",    # watch descriptors, event parsing
    "setup",      # checking, repairing and watching one data file
    "watch",      # the watch thread and its per-file actions
    "lifecycle",  # start and stop
    "tags",       # the sorted tag table, its cache, lookups by tag
    "backup",     # the configuration backup text
    "restore",    # restore from a backup text, with a filter
    "applog",     # log settings that follow variables, remote log events
    "batch",      # batch changes and profile downloads
    "defaults",   # loading general, factory and all defaults
    "capi",       # the exported C functions
]

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^/"]+)/[^"]+"')


def main() -> int:
    src = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..", "src")
    rank = {name: i for i, name in enumerate(LAYERS)}
    problems = []
    for folder in sorted(os.listdir(src)):
        path = os.path.join(src, folder)
        if not os.path.isdir(path):
            continue
        if folder not in rank:
            problems.append(f"src/{folder}/ has no place in the layer list of {os.path.basename(__file__)}")
            continue
        for root, _, files in os.walk(path):
            for name in sorted(files):
                file_path = os.path.join(root, name)
                with open(file_path, encoding="utf-8", errors="replace") as f:
                    for lineno, line in enumerate(f, 1):
                        m = INCLUDE.match(line)
                        if not m or m.group(1) not in rank:
                            continue
                        if rank[m.group(1)] > rank[folder]:
                            rel = os.path.relpath(file_path, os.path.join(src, ".."))
                            problems.append(f"{rel}:{lineno}: {folder}/ includes {m.group(1)}/, which is above it")
    for p in problems:
        print(p)
    if problems:
        print("layer order, lowest first: " + " < ".join(LAYERS))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
