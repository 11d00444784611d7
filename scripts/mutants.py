#!/usr/bin/env python3
"""Seeded-fault check of the test suite.

Picks small faults in the product code (a flipped comparison, a swapped
operator, a constant off by one), applies one at a time, rebuilds, runs the
suite, and records whether the suite caught it. The same list can be replayed
on another checkout (older or newer tests over the same product code), so two
suites are compared on identical faults.

  scripts/mutants.py list  --per-subsystem 8 --seed 1 > faults.tsv
  scripts/mutants.py run   faults.tsv --build build-mutants > results.tsv
  scripts/mutants.py score results.tsv [results2.tsv]

`run` needs a build folder configured with the tests on; it restores every
file it touches, also when interrupted. A fault the build rejects is marked
"uncompiled" and left out of the rates; a suite that hangs past the time limit
counts as having caught the fault.
"""
import argparse
import os
import random
import re
import signal
import subprocess
import sys
import time

SUBSYSTEMS = ("app", "imsubs", "trsolver", "spots", "model", "correction")

# (pattern, replacement, kind): applied at one match position per fault.
OPERATORS = [
    (r" < ", " <= ", "comparison"), (r" <= ", " < ", "comparison"),
    (r" > ", " >= ", "comparison"), (r" >= ", " > ", "comparison"),
    (r" == ", " != ", "comparison"), (r" != ", " == ", "comparison"),
    (r" \+ ", " - ", "arithmetic"), (r" - ", " + ", "arithmetic"),
    (r" \* ", " / ", "arithmetic"), (r" / ", " * ", "arithmetic"),
    (r" && ", " || ", "logic"), (r" \|\| ", " && ", "logic"),
]
INTEGER = re.compile(r"(?<![\w.])(\d+)(?![\w.])")
STRING = re.compile(r'"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'')


def code_part(line):
    """The line with string literals blanked and any // comment cut."""
    blanked = STRING.sub(lambda m: " " * len(m.group(0)), line)
    cut = blanked.find("//")
    return blanked if cut < 0 else blanked[:cut]


def candidates(path):
    """Every single-edit fault site of one source file."""
    out = []
    in_block = False
    with open(path, encoding="utf-8") as fh:
        lines = fh.read().split("\n")
    for n, line in enumerate(lines, 1):
        stripped = line.strip()
        if in_block:
            in_block = "*/" not in stripped
            continue
        if stripped.startswith("/*"):
            in_block = "*/" not in stripped
            continue
        if not stripped or stripped.startswith(("#", "//", "*")):
            continue
        code = code_part(line)
        for pattern, repl, kind in OPERATORS:
            for m in re.finditer(pattern, code):
                out.append((n, m.start(), m.group(0), repl, kind))
        for m in INTEGER.finditer(code):
            out.append((n, m.start(), m.group(0), str(int(m.group(0)) + 1), "constant"))
    return out


def sources(repo, subsystem):
    folder = os.path.join(repo, subsystem)
    return sorted(os.path.join(subsystem, f) for f in os.listdir(folder) if f.endswith(".cpp"))


def cmd_list(args):
    rng = random.Random(args.seed)
    print("id\tsubsystem\tfile\tline\tcolumn\tkind\tfrom\tto")
    ident = 0
    for sub in SUBSYSTEMS:
        sites = [(f, *c) for f in sources(args.repo, sub) for c in candidates(os.path.join(args.repo, f))]
        for f, line, col, old, new, kind in sorted(rng.sample(sites, min(args.per_subsystem, len(sites)))):
            ident += 1
            print(f"{ident}\t{sub}\t{f}\t{line}\t{col}\t{kind}\t{old!r}\t{new!r}")


def read_table(path):
    with open(path, encoding="utf-8") as fh:
        rows = [line.rstrip("\n").split("\t") for line in fh if line.strip()]
    head = rows[0]
    return head, [dict(zip(head, r)) for r in rows[1:]]


def apply(repo, row):
    """Writes the fault into its file; returns the original text."""
    path = os.path.join(repo, row["file"])
    with open(path, encoding="utf-8") as fh:
        original = fh.read()
    lines = original.split("\n")
    n, col = int(row["line"]) - 1, int(row["column"])
    old, new = eval(row["from"]), eval(row["to"])  # written with repr() by `list`
    if lines[n][col:col + len(old)] != old:
        raise SystemExit(f"fault {row['id']} no longer matches {row['file']}:{row['line']}")
    lines[n] = lines[n][:col] + new + lines[n][col + len(old):]
    with open(path, "w", encoding="utf-8") as fh:
        fh.write("\n".join(lines))
    return path, original


def run_group(cmd, limit, cwd):
    """Runs cmd in its own process group; returns its status, or None on time-out."""
    proc = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                            start_new_session=True)
    try:
        return proc.wait(timeout=limit)
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.wait()
        return None


def cmd_run(args):
    head, rows = read_table(args.faults)
    jobs = str(os.cpu_count() or 2)
    build = os.path.abspath(args.build)
    if run_group(["cmake", "--build", build, "-j", jobs], args.build_limit, args.repo) != 0 or \
       run_group(["ctest", "--test-dir", build, "-j", jobs], args.test_limit, args.repo) != 0:
        raise SystemExit("the suite does not pass on the unchanged code; nothing to compare")
    print("\t".join(head + ["result", "seconds"]), flush=True)
    for row in rows:
        start = time.time()
        path, original = apply(args.repo, row)
        try:
            built = run_group(["cmake", "--build", build, "-j", jobs], args.build_limit, args.repo)
            if built != 0:
                result = "uncompiled"
            else:
                status = run_group(["ctest", "--test-dir", build, "-j", jobs, "--stop-on-failure"],
                                   args.test_limit, args.repo)
                result = "caught" if status != 0 else "missed"
                if status is None:
                    result = "caught-hang"
        finally:
            with open(path, "w", encoding="utf-8") as fh:
                fh.write(original)
        print("\t".join([row[h] for h in head] + [result, f"{time.time() - start:.0f}"]), flush=True)
    run_group(["cmake", "--build", build, "-j", jobs], args.build_limit, args.repo)


def cmd_score(args):
    tables = [read_table(p)[1] for p in args.results]
    print("subsystem\t" + "\t".join(os.path.basename(p) for p in args.results))
    for sub in SUBSYSTEMS + ("all",):
        cells = []
        for rows in tables:
            mine = [r for r in rows if sub in ("all", r["subsystem"]) and r["result"] != "uncompiled"]
            caught = sum(r["result"].startswith("caught") for r in mine)
            cells.append(f"{caught}/{len(mine)} ({100.0 * caught / max(len(mine), 1):.0f}%)")
        print(sub + "\t" + "\t".join(cells))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--repo", default=os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    sub = parser.add_subparsers(dest="command", required=True)
    p = sub.add_parser("list")
    p.add_argument("--per-subsystem", type=int, default=8)
    p.add_argument("--seed", type=int, default=1)
    p = sub.add_parser("run")
    p.add_argument("faults")
    p.add_argument("--build", default="build")
    p.add_argument("--build-limit", type=int, default=900)
    p.add_argument("--test-limit", type=int, default=300)
    p = sub.add_parser("score")
    p.add_argument("results", nargs="+")
    args = parser.parse_args()
    {"list": cmd_list, "run": cmd_run, "score": cmd_score}[args.command](args)


if __name__ == "__main__":
    sys.exit(main())
