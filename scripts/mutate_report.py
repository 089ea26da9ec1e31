#!/usr/bin/env python3
"""Summary of a mutation run of scripts/mutate.sh: kill rate over the mutants
that compile, per file, per kind, per test layer and per test file (the tests
that failed first), each survivor with its file, line and change, and apart
from them the equivalent mutants listed in the triage file.

  mutate_report.py PLAN RESULTS TRIAGE TESTS_JSON [--min-rate PERCENT]

Mutants that compile to the same code as the original (the object file,
without its debug information, is unchanged) are the same program: they are
counted apart and not in the rate. A survivor that no input can tell apart
from the original is listed with the reason in the triage file: the rate is
over the compiling mutants that are not equivalent (the usual mutation
score); the rate with the equivalents counted as not killed is shown beside,
so that what triage excuses stays in sight.
"""
import collections
import glob
import json
import os
import re
import sys

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))


def load(argv):
    plan_path, results_path, triage_path, tests_path = argv[1:5]
    plan = {}
    for line in open(plan_path):
        f = line.rstrip("\n").split("\t")
        plan[f[0]] = dict(file=f[1], line=int(f[2]), kind=f[6], orig=f[7], repl=f[8])
    results = {}
    for line in open(results_path):
        f = line.rstrip("\n").split("\t")
        if len(f) >= 2 and f[0] in plan:
            results[f[0]] = (f[1], f[2].split() if len(f) > 2 else [])
    triage = {}
    if os.path.exists(triage_path):
        for line in open(triage_path):
            if line.strip() and not line.startswith("#"):
                mid, _, why = line.rstrip("\n").partition("\t")
                triage[mid.strip()] = why.strip()
    return plan, results, triage, tests_path


def test_files(tests_path):
    """ctest name -> (layer, file that holds the test)."""
    sources = {}
    for path in glob.glob(f"{ROOT}/tests/**/*.cpp", recursive=True):
        text = open(path).read()
        rel = os.path.relpath(path, ROOT)
        for m in re.finditer(r"\bTEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", text):
            sources[(m.group(1), m.group(2))] = rel
        for m in re.finditer(r"INSTANTIATE_TEST_SUITE_P\(\s*(\w+),\s*(\w+)", text):
            sources[("inst", m.group(1), m.group(2))] = rel
    where = {}
    try:
        listing = json.load(open(tests_path))["tests"]
    except (OSError, ValueError):
        listing = []
    for t in listing:
        labels = next((p["value"] for p in t.get("properties", []) if p["name"] == "LABELS"), [])
        layer = "redis" if "redis" in labels else labels[0] if labels else "?"
        file = next((os.path.relpath(a[len("-DSCRIPT="):], ROOT) for a in t.get("command", [])
                     if a.startswith("-DSCRIPT=")), None)
        if file is None:
            parts = t["name"].split("/")
            core = parts[1] if len(parts) > 1 else parts[0]
            suite, _, case = core.partition(".")
            file = sources.get((suite, case.split("/")[0])) or \
                (sources.get(("inst", parts[0], suite)) if len(parts) > 1 else None) or \
                "ctest " + t["name"]  # a command of its own (the Redis runs)
        where[t["name"]] = (layer, file)
    return where


def rate(k, total):
    return f"{k}/{total} = {100.0 * k / total:.1f}%" if total else "0/0"


def main(argv):
    min_rate = float(argv[argv.index("--min-rate") + 1]) if "--min-rate" in argv else None
    plan, results, triage, tests_path = load(argv)
    where = test_files(tests_path)
    outcome = {m: r[0] for m, r in results.items()}
    compiling = [m for m, o in outcome.items() if o in ("killed", "timeout", "survived")]
    detected = [m for m in compiling if outcome[m] in ("killed", "timeout")]
    equivalent = [m for m in compiling if outcome[m] == "survived" and m in triage]
    survivors = [m for m in compiling if outcome[m] == "survived" and m not in triage]
    count = collections.Counter(outcome.values())
    print(f"mutants selected: {len(plan)}, run: {len(results)}; compiling: {len(compiling)}, "
          f"not compiling: {count['nocompile']}, not applying: {count['noapply']}, "
          f"same code as the original: {count['samecode']}")
    print(f"killed: {count['killed']}, timed out: {count['timeout']}, survived: {len(survivors)}, "
          f"equivalent (triaged): {len(equivalent)}")
    print(f"kill rate (killed + timed out over compiling, the equivalents left out): "
          f"{rate(len(detected), len(compiling) - len(equivalent))}")
    print(f"  with the equivalents counted as not killed: {rate(len(detected), len(compiling))}")

    print("\nper file: compiling killed timeout survived equivalent not-compiling rate "
          "(equivalents left out)")
    for f in sorted({p["file"] for p in plan.values()}):
        ms = [m for m in results if plan[m]["file"] == f]
        c = [m for m in ms if m in compiling]
        k = collections.Counter(outcome[m] for m in ms)
        eq = len([m for m in c if m in equivalent])
        print(f"  {f.split('/')[-1]:24s} {len(c):4d} {k['killed']:6d} {k['timeout']:7d} "
              f"{k['survived'] - eq:8d} {eq:10d} {k['nocompile']:13d}  "
              f"{rate(k['killed'] + k['timeout'], len(c) - eq)}")

    print("\nper kind: compiling, killed or timed out, survived (equivalents included), rate")
    for kind in sorted({p["kind"] for p in plan.values()}):
        c = [m for m in compiling if plan[m]["kind"] == kind]
        d = [m for m in c if m in detected]
        print(f"  {kind:7s} {len(c):4d} {len(d):4d} {len(c) - len(d):4d}  {rate(len(d), len(c))}")

    by_layer = collections.Counter()
    by_file = collections.Counter()
    by_test = collections.Counter()
    for m in detected:
        layers, files = set(), set()
        for t in results[m][1]:
            name = t.rsplit(":", 1)[0]
            plain = name[len("asan:"):] if name.startswith("asan:") else name
            layer, file = where.get(plain, ("?", name if name.startswith("layer-") else "?"))
            if plain != name:
                layer = "asan"
            layers.add(layer)
            files.add(file)
            by_test[name] += 1
        for x in layers:
            by_layer[x] += 1
        for x in files:
            by_file[x] += 1
    print("\nfirst failing layer (module, then scenario, oracle, redis, asan):")
    for layer in ("module", "scenario", "oracle", "redis", "asan", "?"):
        if by_layer[layer]:
            print(f"  {layer:9s} {by_layer[layer]:4d}")
    print("per test file (mutants it failed first on):")
    for file, k in sorted(by_file.items(), key=lambda x: (-x[1], x[0])):
        print(f"  {k:4d}  {file}")

    lines = {}

    def source_line(p):
        if p["file"] not in lines:
            lines[p["file"]] = open(os.path.join(ROOT, p["file"]), encoding="latin-1").readlines()
        text = lines[p["file"]]
        return text[p["line"] - 1].strip() if p["line"] <= len(text) else ""

    print("per test (mutants it failed on, first failing layer only):")
    for name, k in sorted(by_test.items(), key=lambda x: (-x[1], x[0])):
        print(f"  {k:4d}  {name}")

    def show(m):
        p = plan[m]
        return (f"{p['file'].split('/')[-1]}:{p['line']}  {p['kind']}: {p['orig']} -> {p['repl']}"
                f"\n      in: {source_line(p)}")
    print(f"\nsurvivors ({len(survivors)}):")
    for m in sorted(survivors, key=lambda m: (plan[m]["file"], plan[m]["line"])):
        print(f"  {show(m)}\n      id: {m}")
    print(f"equivalent, from the triage file ({len(equivalent)}):")
    for m in sorted(equivalent, key=lambda m: (plan[m]["file"], plan[m]["line"])):
        print(f"  {show(m)}\n      why: {triage[m]}")
    timeouts = [m for m in compiling if outcome[m] == "timeout"]
    if timeouts:
        print(f"timed out ({len(timeouts)}):")
        for m in timeouts:
            print(f"  {show(m)}")

    if min_rate is not None:
        scored = len(compiling) - len(equivalent)
        got = 100.0 * len(detected) / scored if scored else 0.0
        if got < min_rate:
            print(f"\nFAIL: kill rate {got:.1f}% is below {min_rate}%")
            return 1
        print(f"\nkill rate {got:.1f}% is at least {min_rate}%")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
