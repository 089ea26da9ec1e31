#!/usr/bin/env python3
"""Mutants of the module, found through the compiler's view of its sources.

Parses every source of app/proc/kel/udp_dpm_topo/ and app/proc/kel/udp_dpm_cap/
with libclang (the flags of the build's compile_commands.json) and places
mutants on real expressions and statements:

  ror     a relational operator replaced by each of its siblings
  aor     an arithmetic, bitwise, shift or compound-assignment operator
          replaced by its siblings; ++ and -- swapped
  lcr     && and || swapped
  lit     an integer literal +1 and -1
  bound   the right side of <, <=, >, >= (when not a literal) +1 and -1
  bool    true and false swapped
  cond    a condition (if, loop, ?:, and each operand of && / ||) negated,
          forced true (not for loops: that only hangs), forced false
  call    a call statement deleted (log lines included)
  assign  an assignment, compound assignment or ++/-- statement deleted
  field   a field of a database record written: the assignment dropped, or
          the field on either side swapped with its neighbour of the same type

A mutant's id is file:function:kind:original->replacement#n (n counts equal
changes within the function), so it survives edits elsewhere; the line and
column are reported beside it.

  mutate_gen.py BUILD_DIR list                 every mutant, one TSV line each
  mutate_gen.py BUILD_DIR sample N SEED        N of them, spread over files by size
  mutate_gen.py BUILD_DIR sizes                each file's size and mutant count
  (--files REGEX after BUILD_DIR: only the files whose path matches)
  mutate_gen.py apply FILE START END ORIG REPL apply one mutant (ORIG checked)

TSV columns: id, file, line, col, start, end, kind, original, replacement
(texts with \\n, \\t and \\\\ escaped).
"""
import collections
import os
import random
import re
import sys

from mutate_kinds import Collector, cindex, module_files


def esc(s):
    return s.replace("\\", "\\\\").replace("\t", "\\t").replace("\n", "\\n")


def unesc(s):
    return re.sub(r"\\(.)", lambda m: {"t": "\t", "n": "\n"}.get(m.group(1), m.group(1)), s)


def ident(m):
    def short(t):
        t = re.sub(r"\s+", "", t)
        return t if len(t) <= 40 else t[:37] + "..."
    what = m["label"] or f"{short(m['orig'])}->{short(m['repl'])}"
    return f"{m['file']}:{m['func']}:{m['kind']}:{what}"


def collect(build):
    ci = cindex()
    col = Collector(ci)
    for path in module_files():
        if path.endswith(".cpp"):
            col.parse(build, path)
    mutants = sorted(col.mutants.values(), key=lambda m: (m["file"], m["start"], m["end"], m["repl"]))
    count = collections.Counter()
    for m in mutants:
        base = ident(m)
        count[base] += 1
        m["id"] = f"{base}#{count[base]}"
    return mutants


def by_file(mutants):
    files = collections.OrderedDict()
    for m in mutants:
        files.setdefault(m["file"], []).append(m)
    return files


def size(ms):
    """A file's size: the source lines that carry code (a mutant)."""
    return len({m["line"] for m in ms})


def sample(mutants, n, seed):
    """n mutants spread over the files by size (largest remainder), then drawn
    at random within each file."""
    files = by_file(mutants)
    total = sum(size(ms) for ms in files.values())
    quota = {f: n * size(ms) / total for f, ms in files.items()}
    take = {f: min(int(q), len(files[f])) for f, q in quota.items()}
    order = sorted(files, key=lambda f: (-(quota[f] - int(quota[f])), f))
    while sum(take.values()) < min(n, len(mutants)):
        for f in order:
            if sum(take.values()) < n and take[f] < len(files[f]):
                take[f] += 1
    rng = random.Random(seed)
    chosen = []
    for f, ms in files.items():
        chosen += sorted(rng.sample(ms, take[f]), key=lambda m: m["start"])
    return chosen


def tsv(m):
    return "\t".join([m["id"], m["file"], str(m["line"]), str(m["col"]), str(m["start"]),
                      str(m["end"]), m["kind"], esc(m["orig"]), esc(m["repl"])])


def apply(path, start, end, orig, repl):
    data = open(path, "rb").read().decode("latin-1")
    start, end = int(start), int(end)
    if data[start:end] != unesc(orig):
        sys.exit(1)
    open(path, "wb").write((data[:start] + unesc(repl) + data[end:]).encode("latin-1"))


def main(argv):
    if len(argv) >= 2 and argv[1] == "apply":
        return apply(*argv[2:7])
    files = None
    if "--files" in argv:  # only the files whose path matches this regular expression
        i = argv.index("--files")
        files = re.compile(argv[i + 1])
        argv = argv[:i] + argv[i + 2:]
    build, cmd = argv[1], argv[2]
    mutants = [m for m in collect(os.path.abspath(build)) if not files or files.search(m["file"])]
    if cmd == "list":
        chosen = mutants
    elif cmd == "sample":
        chosen = sample(mutants, int(argv[3]), int(argv[4]))
    elif cmd == "sizes":
        for f, ms in by_file(mutants).items():
            kinds = collections.Counter(m["kind"] for m in ms)
            print(f"{f}\t{size(ms)} lines\t{len(ms)} mutants\t" +
                  " ".join(f"{k}:{v}" for k, v in sorted(kinds.items())))
        return
    else:
        sys.exit(__doc__)
    for m in chosen:
        print(tsv(m))


if __name__ == "__main__":
    main(sys.argv)
