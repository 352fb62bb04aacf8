#!/usr/bin/env python3
"""Adds the options of every cmctl subcommand, from its own --help, to the
help2man include file, so that the manual page documents them all.

Usage: gen_man_include.py CMCTL BASE.h2m OUT.h2m
"""
import re
import subprocess
import sys


def help_of(cmctl, *args):
    return subprocess.run([cmctl, *args, "--help"], capture_output=True, text=True, check=True).stdout


def main(cmctl, base, out):
    top = help_of(cmctl)
    names = re.findall(r"^\s{2}(\w+)\s", re.split(r"(?i)subcommands:", top, maxsplit=1)[1], re.M)
    parts = [open(base).read(), "\n[SUBCOMMANDS]\n"]
    for name in names:
        text = help_of(cmctl, name).replace("\\", "\\\\").replace("\n.", "\n\\&.").replace("\n'", "\n\\&'")
        parts.append(".SS %s\n.nf\n%s.fi\n" % (name, text))
    with open(out, "w") as f:
        f.write("".join(parts))


if __name__ == "__main__":
    main(*sys.argv[1:4])
