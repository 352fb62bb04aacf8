#!/usr/bin/env python3
"""Generate the bash completion of cmctl from the variable catalogue.

Usage: gen_completion.py TABLE OUT

The subcommands and options are the tool's; the variable names come from the
catalogue table, read with the catalogue generator's own parser, so the
completion always offers exactly the names the library knows.
"""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
import gen_catalogue  # noqa: E402

TEMPLATE = r"""# bash completion for cmctl (generated from the variable catalogue; do not edit)

_cmctl_names="@NAMES@"

_cmctl()
{
    local cur prev words cword
    _init_completion || return

    local subcommands="get set show info find watch backup restore diff defaults check master"
    local global="--root --json -v --verbose --master --help --version"
    local i sub=""
    for ((i = 1; i < cword; i++)); do
        case "${words[i]}" in
            --root) ((i++)) ;;
            -*) ;;
            *) sub="${words[i]}"; break ;;
        esac
    done

    case "$prev" in
        --root) _filedir -d; return ;;
        --filter) _filedir; return ;;
    esac

    if [[ -z "$sub" ]]; then
        COMPREPLY=($(compgen -W "$subcommands $global" -- "$cur"))
        return
    fi

    local opts=""
    case "$sub" in
        get) opts="--reveal --default" ;;
        set) opts="--force" ;;
        show) opts="--changed --reveal" ;;
        backup) opts="--volatile --octets" ;;
        restore) opts="--filter" ;;
        defaults) opts="--yes" ;;
        check) opts="--repair" ;;
    esac
    if [[ "$cur" == -* ]]; then
        COMPREPLY=($(compgen -W "$opts $global --help" -- "$cur"))
        return
    fi

    # Position of the current word among the subcommand's arguments.
    local n=0
    for ((i = i + 1; i < cword; i++)); do
        case "${words[i]}" in
            --root|--filter) ((i++)) ;;
            -*) ;;
            *) ((n++)) ;;
        esac
    done

    case "$sub" in
        get|info|watch) COMPREPLY=($(compgen -W "$_cmctl_names" -- "$cur")) ;;
        set|show) ((n == 0)) && COMPREPLY=($(compgen -W "$_cmctl_names" -- "$cur")) ;;
        backup|restore|diff) _filedir ;;
        defaults) ((n == 0)) && COMPREPLY=($(compgen -W "general factory all" -- "$cur")) ;;
    esac
}
complete -F _cmctl cmctl
"""


def main(argv):
    if len(argv) != 3:
        sys.stderr.write("usage: %s TABLE OUT\n" % os.path.basename(argv[0]))
        return 2
    try:
        files = gen_catalogue.load_table(argv[1])
    except gen_catalogue.TableError as exc:
        sys.stderr.write("gen_completion: %s\n" % exc)
        return 1
    names = [v.name for f in files for v in sorted(f.variables, key=lambda v: v.var_id)]
    gen_catalogue.write_file(argv[2], TEMPLATE.replace("@NAMES@", " ".join(names)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
