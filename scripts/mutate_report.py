#!/usr/bin/env python3
"""Summary of a mutation run of scripts/mutate.sh: kill rate overall, per test
layer and per test file, survivors, and the mutants that do not apply or do
not compile."""
import collections
import glob
import json
import re
import sys

list_path, results_path, tests_path, root = sys.argv[1:5]

mutants = []
for line in open(list_path):
    if line.startswith("#") or not line.strip():
        continue
    f = line.rstrip("\n").split("\t")
    mutants.append((f[0], f[4] if len(f) > 4 else ""))

results = {}
for line in open(results_path):
    f = line.rstrip("\n").split("\t")
    if len(f) >= 2:
        results[int(f[0])] = (f[1], f[2].split() if len(f) > 2 else [])

# Test name -> (layer, file) from ctest's own listing.
sources = {}
for path in glob.glob(f"{root}/tests/**/*.cpp", recursive=True):
    text = open(path).read()
    for m in re.finditer(r"\bTEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", text):
        sources[(m.group(1), m.group(2))] = path[len(root) + 1:]
    for m in re.finditer(r"INSTANTIATE_TEST_SUITE_P\(\s*(\w+),\s*(\w+)", text):
        sources[("inst", m.group(1), m.group(2))] = path[len(root) + 1:]
where = {}
try:
    listing = json.load(open(tests_path))["tests"]
except (OSError, ValueError):
    listing = []
for t in listing:
    labels = []
    for p in t.get("properties", []):
        if p["name"] == "LABELS":
            labels = p["value"]
    layer = "oracle" if "oracle" in labels else labels[0] if labels else "?"
    cmd = t.get("command", [])
    file = "?"
    for a in cmd:
        if a.startswith("-DSCRIPT="):
            file = a[len("-DSCRIPT="):].replace(root + "/", "")
    if file == "?":
        name = t["name"]
        parts = name.split("/")
        core = parts[1] if len(parts) > 1 else parts[0]
        suite, _, case = core.partition(".")
        file = sources.get((suite, case.split("/")[0]), "?")
        if file == "?" and len(parts) > 1:
            file = sources.get(("inst", parts[0], suite), "?")
        if file == "?":  # a test that is a command of its own (the Redis runs)
            file = "ctest " + name
    where[t["name"]] = (layer, file)

ran = [n for n, (o, _) in results.items() if o in ("killed", "survived")]
killed = [n for n in ran if results[n][0] == "killed"]


def rate(k, total):
    return f"{k}/{total} = {100.0 * k / total:.1f}%" if total else "0/0"


print(f"mutants in the list: {len(mutants)}, run: {len(ran)}")
print(f"kill rate overall: {rate(len(killed), len(ran))}")
by_layer = collections.defaultdict(set)
by_file = collections.defaultdict(set)
for n in killed:
    for t in results[n][1]:
        layer, file = where.get(t, ("?", "?"))
        by_layer[layer].add(n)
        by_file[file].add(n)
for layer in ("module", "scenario", "oracle"):
    print(f"  layer {layer:9s}: {rate(len(by_layer[layer]), len(ran))}")
for layer in sorted(set(by_layer) - {"module", "scenario", "oracle"}):
    print(f"  layer {layer:9s}: {rate(len(by_layer[layer]), len(ran))}")
others = by_layer["module"] | by_layer["scenario"]
only_oracle = by_layer["oracle"] - others
print(f"  killed only by the oracle layer: {sorted(only_oracle)}")
only_scen = by_layer["scenario"] - by_layer["module"] - by_layer["oracle"]
print(f"  killed only by scenarios: {sorted(only_scen)}")
print("per test file (mutants killed):")
for file, ns in sorted(by_file.items(), key=lambda x: (-len(x[1]), x[0])):
    print(f"  {len(ns):4d}  {file}")
print("survivors:")
for n in sorted(set(ran) - set(killed)):
    print(f"  {n:4d}  {mutants[n - 1][0]}: {mutants[n - 1][1]}")
for outcome in ("noapply", "nocompile"):
    ns = sorted(n for n, (o, _) in results.items() if o == outcome)
    if ns:
        print(f"{outcome}: " + ", ".join(f"{n} ({mutants[n - 1][0]})" for n in ns))
