#!/usr/bin/env python3
"""Generate the compiled-in variable catalogue from catalogue/variables.tbl.

Usage: gen_catalogue.py TABLE OUT_CPP OUT_HEADER

TABLE is the catalogue (format in catalogue/README.md).  OUT_CPP receives the
C++ tables of namespace cm::catalogue (per-file entry arrays, default-data
blobs, sConfigItemList and kFileOfVarId); OUT_HEADER receives the public C
header with one enum constant per variable, named by its tag and valued by its
absolute ID.

Every error is reported with the table line it concerns, and any error makes
the script exit with status 1 without writing anything.  Output depends only
on the table, so repeated runs give identical files.
"""

import os
import re
import sys

NUM_FILES = 10
NUM_VAR_IDS = 3290  # absolute IDs 0..3289
REPORT_FLAG = 0x80000000

# Type name in the table -> (type code constant, fixed size or None, numeric).
TYPES = {
    "OCTET": ("DT_OCTET", 1, True),
    "WORD": ("DT_WORD", 2, True),
    "DWORD": ("DT_DWORD", 4, True),
    "STRING": ("DT_STRING", None, False),
    "OCTSTR": ("DT_OCTET_STRING", None, False),
    "IPADDR": ("DT_IPADDR", 20, False),
    "PASSWD": ("DT_PASSWORD", 130, False),
}

TOKEN_RE = re.compile(r'"[^"]*"|#.*|\S+')
IDS_RE = re.compile(r"^(\d+)(?:-(\d+)(?:/(\d+))?)?$")
INDEX_RE = re.compile(r"\{n(?:\+(\d+))?\}")
NAME_RE = re.compile(r"^[A-Za-z][A-Za-z0-9_]*$")
LABEL_RE = re.compile(r"^[A-Z][A-Z0-9]*$")


class TableError(Exception):
    pass


class Row:
    """One line of the table: a single variable or a family of them."""

    def __init__(self, lineno, text):
        self.lineno = lineno
        self.text = text.strip()

    def where(self):
        return "line %d ('%s')" % (self.lineno, " ".join(self.text.split()[:2]))


class Variable:
    def __init__(self, var_id, name, type_name, size, group, vmin, vmax, default, report, row):
        self.var_id = var_id
        self.name = name
        self.type_name = type_name
        self.size = size
        self.group = group
        self.vmin = vmin
        self.vmax = vmax
        self.default = default  # int for numeric types, bytes otherwise
        self.report = report
        self.row = row


class DataFile:
    def __init__(self, index, label, path, version, first, count, row):
        self.index = index
        self.label = label
        self.path = path
        self.version = version
        self.first = first
        self.count = count
        self.row = row
        self.variables = []

    def array_name(self):
        return "kItems%s" % self.label.title()


def tokenize(line):
    tokens = []
    for tok in TOKEN_RE.findall(line):
        if tok.startswith("#"):
            break
        if tok.startswith('"') and (len(tok) < 2 or not tok.endswith('"')):
            raise TableError("unterminated text %s" % tok)
        tokens.append(tok)
    return tokens


def parse_number(tok, what):
    try:
        value = int(tok, 16) if tok.lower().startswith("0x") else int(tok, 10)
    except ValueError:
        raise TableError("%s '%s' is not a number" % (what, tok)) from None
    if value < 0 or value > 0xFFFFFFFF:
        raise TableError("%s %s does not fit in 32 bits" % (what, tok))
    return value


def substitute_index(template, n):
    """Replace {n} / {n+K} by the member index (n counts from 1)."""
    return INDEX_RE.sub(lambda m: str(n + int(m.group(1) or 0)), template)


def parse_ids(tok):
    m = IDS_RE.match(tok)
    if not m:
        raise TableError("bad ID column '%s'" % tok)
    first = int(m.group(1))
    if m.group(2) is None:
        return [first]
    last = int(m.group(2))
    step = int(m.group(3) or 1)
    if step < 1 or last <= first or (last - first) % step:
        raise TableError("bad ID range '%s'" % tok)
    return list(range(first, last + 1, step))


def parse_file_header(row, tokens):
    if len(tokens) != 7:
        raise TableError("file header needs: file INDEX LABEL \"PATH\" version= first= count=")
    try:
        index = int(tokens[1])
    except ValueError:
        raise TableError("file index '%s' is not a number" % tokens[1]) from None
    label = tokens[2]
    if not LABEL_RE.match(label):
        raise TableError("file label '%s' must be upper-case letters and digits" % label)
    path = tokens[3]
    if not (path.startswith('"') and len(path) > 2):
        raise TableError("file path must be double-quoted")
    keys = {}
    for tok in tokens[4:]:
        key, sep, value = tok.partition("=")
        if not sep or key not in ("version", "first", "count") or key in keys:
            raise TableError("unexpected file attribute '%s'" % tok)
        keys[key] = parse_number(value, key)
    if len(keys) != 3:
        raise TableError("file header needs version=, first= and count=")
    if not 0 <= index < NUM_FILES:
        raise TableError("file index %d outside 0..%d" % (index, NUM_FILES - 1))
    if keys["version"] > 0xFFFF:
        raise TableError("file version %d does not fit in 16 bits" % keys["version"])
    return DataFile(index, label, path[1:-1], keys["version"], keys["first"], keys["count"], row)


def member_defaults(tok, type_name, size, count):
    """Default of each member of a row: ints for numeric types, bytes otherwise."""
    numeric = TYPES[type_name][2]
    if tok.startswith('"'):
        if type_name != "STRING":
            raise TableError("a text default is allowed for STRING rows only")
        text = tok[1:-1]
        values = []
        for n in range(1, count + 1):
            member = substitute_index(text, n)
            if "{" in member or "}" in member:
                raise TableError("unknown placeholder in default %s" % tok)
            try:
                data = member.encode("ascii")
            except UnicodeEncodeError:
                raise TableError("default %s is not plain ASCII" % tok) from None
            if any(b < 0x20 or b > 0x7E for b in data):
                raise TableError("default %s holds a control character" % tok)
            if len(data) > size - 1:
                raise TableError(
                    'default "%s" is %d characters, more than size-1 = %d' % (member, len(data), size - 1))
            values.append(data + bytes(size - len(data)))
        return values
    if tok == "-":
        if numeric:
            raise TableError("numeric rows need a numeric default, not '-'")
        return [bytes(size)] * count
    if not numeric:
        raise TableError("%s rows take '-' or a text as default, not '%s'" % (type_name, tok))
    if tok.startswith("seq:"):
        parts = tok[4:].split(":")
        if len(parts) != 2:
            raise TableError("bad default '%s' (seq:START:STEP)" % tok)
        start = parse_number(parts[0], "seq start")
        step = parse_number(parts[1], "seq step")
        values = [start + step * i for i in range(count)]
    elif tok.startswith("list:"):
        values = [parse_number(v, "list default") for v in tok[5:].split(",")]
        if len(values) != count:
            raise TableError("default list has %d values for %d members" % (len(values), count))
    else:
        values = [parse_number(tok, "default")] * count
    limit = 1 << (8 * size)
    for v in values:
        if v >= limit:
            raise TableError("default %d does not fit in %d byte(s)" % (v, size))
    return values


def parse_variable_row(row, tokens):
    if len(tokens) not in (8, 9) or (len(tokens) == 9 and tokens[8] != "R"):
        raise TableError("row needs: IDS NAME TYPE SIZE GROUP MIN MAX DEFAULT [R]")
    ids_tok, name_tok, type_name, size_tok, group_tok, min_tok, max_tok, default_tok = tokens[:8]
    ids = parse_ids(ids_tok)
    placeholders = INDEX_RE.findall(name_tok)
    if len(ids) == 1 and "{" in name_tok:
        raise TableError("single variable with an index placeholder in its name")
    if len(ids) > 1 and len(placeholders) != 1:
        raise TableError("a family name needs exactly one {n} or {n+K}")
    if type_name not in TYPES:
        raise TableError("unknown type '%s'" % type_name)
    fixed_size = TYPES[type_name][1]
    size = parse_number(size_tok, "size")
    if fixed_size is not None and size != fixed_size:
        raise TableError("%s size must be %d, not %d" % (type_name, fixed_size, size))
    if not 1 <= size <= 0xFFFF:
        raise TableError("size %d outside 1..65535" % size)
    group = parse_number(group_tok, "group")
    if group > 3:
        raise TableError("group %d outside 0..3" % group)
    vmin = parse_number(min_tok, "min")
    vmax = parse_number(max_tok, "max")
    if TYPES[type_name][2]:
        # Bounds of numbers may break the usual pattern (min above max, default
        # outside the range) and are kept as written; they only have to fit.
        limit = 1 << (8 * size)
        if vmin >= limit or vmax >= limit:
            raise TableError("bounds %d..%d do not fit in %d byte(s)" % (vmin, vmax, size))
    else:
        expected_max = {"STRING": size - 1, "PASSWD": size - 1, "OCTSTR": size, "IPADDR": 0}[type_name]
        if vmin != 0 or vmax != expected_max:
            raise TableError("%s of size %d must have bounds 0..%d, not %d..%d"
                             % (type_name, size, expected_max, vmin, vmax))
    defaults = member_defaults(default_tok, type_name, size, len(ids))
    report = len(tokens) == 9
    variables = []
    for n, (var_id, default) in enumerate(zip(ids, defaults), start=1):
        name = substitute_index(name_tok, n)
        if not NAME_RE.match(name):
            raise TableError("bad name '%s'" % name)
        variables.append(Variable(var_id, name, type_name, size, group, vmin, vmax, default, report, row))
    return variables


def load_table(path):
    """Parse and check the table; returns the ten files in index order."""
    errors = []
    files = {}
    current = None
    with open(path, encoding="ascii") as fh:
        lines = fh.read().split("\n")
    skipping = False  # after a bad file header, until the next header
    for lineno, line in enumerate(lines, start=1):
        row = Row(lineno, line)
        try:
            tokens = tokenize(line)
            if not tokens:
                continue
            if tokens[0] == "file":
                current, skipping = None, True
                header = parse_file_header(row, tokens)
                if header.index in files:
                    raise TableError("file %d declared twice (first at %s)"
                                     % (header.index, files[header.index].row.where()))
                files[header.index] = current = header
                skipping = False
                continue
            if skipping:
                continue
            if current is None:
                raise TableError("variable row before the first file header")
            current.variables.extend(parse_variable_row(row, tokens))
        except TableError as exc:
            errors.append("%s: %s: %s" % (path, row.where(), exc))
    if errors:
        raise TableError("\n".join(errors))

    missing = [i for i in range(NUM_FILES) if i not in files]
    if missing:
        raise TableError("%s: no header for file(s) %s" % (path, ", ".join(map(str, missing))))
    ordered = [files[i] for i in range(NUM_FILES)]
    prev_end = 0
    for f in ordered:
        where = "%s: %s" % (path, f.row.where())
        if f.first < prev_end:
            errors.append("%s: file %d starts at %d, inside the previous file" % (where, f.index, f.first))
        if f.first + f.count > NUM_VAR_IDS:
            errors.append("%s: file %d ends beyond ID %d" % (where, f.index, NUM_VAR_IDS - 1))
        prev_end = f.first + f.count
        check_file_ids(path, f, errors)

    seen_names = {}
    for f in ordered:
        for v in f.variables:
            other = seen_names.get(v.name)
            if other is not None:
                errors.append("%s: %s: duplicate name %s (also at %s)"
                              % (path, v.row.where(), v.name, other.row.where()))
            else:
                seen_names[v.name] = v
    if errors:
        raise TableError("\n".join(errors))
    return ordered


def check_file_ids(path, f, errors):
    """Each ID of a file exactly once, contiguous from its first ID."""
    by_id = {}
    for v in f.variables:
        if not f.first <= v.var_id < f.first + f.count:
            errors.append("%s: %s: ID %d of %s lies outside file %d (IDs %d-%d)"
                          % (path, v.row.where(), v.var_id, v.name, f.index, f.first,
                             f.first + f.count - 1))
        elif v.var_id in by_id:
            errors.append("%s: %s: duplicate ID %d (also at %s)"
                          % (path, v.row.where(), v.var_id, by_id[v.var_id].row.where()))
        else:
            by_id[v.var_id] = v
    if len(f.variables) != f.count:
        errors.append("%s: %s: file %d has %d variables, header says count=%d"
                      % (path, f.row.where(), f.index, len(f.variables), f.count))
    holes = [i for i in range(f.first, f.first + f.count) if i not in by_id]
    if holes:
        shown = ", ".join(map(str, holes[:10])) + (" ..." if len(holes) > 10 else "")
        errors.append("%s: %s: file %d has no variable at ID(s) %s" % (path, f.row.where(), f.index, shown))
    f.variables.sort(key=lambda v: v.var_id)


def c_string(data):
    out = []
    for b in data.rstrip(b"\0"):
        ch = chr(b)
        out.append("\\" + ch if ch in '"\\' else ch)
    return '"%s"' % "".join(out)


def left_aligned(value, size):
    """Numeric default as stored: its size bytes at the top of the 32-bit word."""
    return value << (8 * (4 - size))


def generate_cpp(files):
    out = []
    w = out.append
    w("// Variable catalogue tables, generated by tools/gen_catalogue.py from")
    w("// catalogue/variables.tbl.  Do not edit: change the table and rebuild.")
    w("#include \"catalogue/catalogue.h\"")
    w("")
    w("namespace cm::catalogue {")
    w("")
    w("// Default data of the non-numeric variables, exactly wDataSize bytes each:")
    w("// text with zero padding, or all zero.  Variables with identical default")
    w("// data share one array.")

    blobs = {}  # bytes -> C name
    zero_sizes = sorted({len(v.default) for f in files for v in f.variables
                         if isinstance(v.default, bytes) and not any(v.default)})
    for size in zero_sizes:
        name = "kZero%d" % size
        blobs[bytes(size)] = name
        w("static const uint8_t %s[%d] = {};" % (name, size))
    text_count = 0
    for f in files:
        for v in f.variables:
            if isinstance(v.default, bytes) and v.default not in blobs:
                name = "kText%d" % text_count
                text_count += 1
                blobs[v.default] = name
                w("static const uint8_t %s[%d] = %s;" % (name, len(v.default), c_string(v.default)))
    w("")

    for f in files:
        last = f.first + f.count - 1
        w("// File %d, %s: \"%s\", IDs %d-%d." % (f.index, f.label, f.path, f.first, last))
        w("static const DataAccessStruct %s[%d] = {" % (f.array_name(), f.count))
        for v in f.variables:
            if isinstance(v.default, bytes):
                dflt = "{.pData = %s}" % blobs[v.default]
            else:
                dflt = "{.dwValue = 0x%08Xu}" % left_aligned(v.default, v.size)
            flags = "0x%08Xu" % REPORT_FLAG if v.report else "0u"
            w("    {\"%s\", %s, %d, %d, %du, %du, %s, %s, %d},"
              % (v.name, TYPES[v.type_name][0], v.group, v.size, v.vmin, v.vmax, dflt, flags, v.var_id))
        w("};")
        w("")

    w("std::atomic<uint32_t> dwRecordOffsetNot[kNumVarIds];")
    w("")
    w("const ConfigItemList sConfigItemList[kNumFiles] = {")
    for f in files:
        w("    {\"%s\", %d, 0, %d, %d, %s}," % (f.path, f.version, f.count, f.first, f.array_name()))
    w("};")
    w("")

    owner = [-1] * NUM_VAR_IDS
    for f in files:
        for v in f.variables:
            owner[v.var_id] = f.index
    w("const int8_t kFileOfVarId[kNumVarIds] = {")
    per_line = 30
    for start in range(0, NUM_VAR_IDS, per_line):
        chunk = owner[start:start + per_line]
        w("    %s  // %d" % (" ".join("%d," % x for x in chunk), start))
    w("};")
    w("")
    w("}  // namespace cm::catalogue")
    return "\n".join(out) + "\n"


def generate_header(files):
    out = []
    w = out.append
    w("/*")
    w(" * Configuration manager: variable IDs.")
    w(" *")
    w(" * Generated by tools/gen_catalogue.py from catalogue/variables.tbl; do not edit.")
    w(" * Each constant is named by a variable's tag and holds its absolute ID.")
    w(" */")
    w("#ifndef CONFIGMANAGER_CM_VARS_H")
    w("#define CONFIGMANAGER_CM_VARS_H")
    w("")
    w("enum CM_VarId {")
    for i, f in enumerate(files):
        if i:
            w("")
        w("    /* File %d, %s: \"%s\", IDs %d-%d */"
          % (f.index, f.label, f.path, f.first, f.first + f.count - 1))
        for v in f.variables:
            w("    %s = %d," % (v.name, v.var_id))
    w("};")
    w("")
    w("#endif")
    return "\n".join(out) + "\n"


def write_file(path, text):
    directory = os.path.dirname(path)
    if directory:
        os.makedirs(directory, exist_ok=True)
    tmp = path + ".tmp"
    with open(tmp, "w", encoding="ascii", newline="\n") as fh:
        fh.write(text)
    os.replace(tmp, path)


def main(argv):
    if len(argv) != 4:
        sys.stderr.write("usage: %s TABLE OUT_CPP OUT_HEADER\n" % os.path.basename(argv[0]))
        return 2
    try:
        files = load_table(argv[1])
    except TableError as exc:
        sys.stderr.write("gen_catalogue: %s\n" % str(exc).replace("\n", "\ngen_catalogue: "))
        return 1
    except (OSError, UnicodeDecodeError) as exc:
        sys.stderr.write("gen_catalogue: cannot read %s: %s\n" % (argv[1], exc))
        return 1
    write_file(argv[2], generate_cpp(files))
    write_file(argv[3], generate_header(files))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
