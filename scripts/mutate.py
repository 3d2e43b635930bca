#!/usr/bin/env python3
"""Mutation check: does the test suite notice realistic bugs in src/?

Each mutant of scripts/mutants.txt (format at its top) is applied to the
working tree on its own, the build directory is rebuilt and the test command
run. A failing (or timed-out) test command kills the mutant; a passing one lets
it survive: no test would catch that bug. A mutant that does not compile is
INVALID; one whose original text no longer occurs exactly once in its file is
STALE (src/ moved on: fix or drop the entry). Neither counts in the kill rate.

The mutated file is always put back, also on Ctrl-C or SIGTERM, and the clean
tree is rebuilt at the end; only SIGKILL can leave a mutant behind (then
`git checkout -- src`).

    python3 scripts/mutate.py [--build DIR] [--only NAME,...] [--list] [--log DIR]
"""
import argparse
import os
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def parse_mutants(path):
    """[(name, file, description, [(original, replacement), ...])] in file order."""
    mutants, lines, i = [], open(path, encoding="utf-8").read().split("\n"), 0

    def block(end):
        nonlocal i
        start = i
        while lines[i] != end:
            i += 1
        i += 1
        return "\n".join(lines[start:i - 1])

    while i < len(lines):
        line = lines[i]
        i += 1
        if line.startswith("@ "):
            name, file, desc = line[2:].split(None, 2)
            mutants.append((name, file, desc, []))
        elif line == "<<<":
            original = block("===")
            mutants[-1][3].append((original, block(">>>")))
        elif line.strip() and not line.startswith("#"):
            sys.exit(f"{path}:{i}: unexpected line: {line}")
    return mutants


def run(cmd, timeout, log=None):
    """Runs cmd in its own process group, its output appended to log (a path) or
    dropped; returns its status, or None after a timeout. The whole group is
    killed on a timeout or an interrupt, so no test process outlives its mutant."""
    out = open(log, "a") if log else subprocess.DEVNULL
    proc = subprocess.Popen(cmd, shell=True, cwd=ROOT, start_new_session=True, stdout=out, stderr=subprocess.STDOUT)
    try:
        return proc.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        return None
    finally:
        if proc.poll() is None:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()
        if log:
            out.close()


def stale(file, edits):
    """True when the file is gone or an original text is not there exactly once."""
    path = os.path.join(ROOT, file)
    text = open(path, encoding="utf-8").read() if os.path.isfile(path) else ""
    return any(text.count(original) != 1 for original, _ in edits)


def write(path, text):
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)


def build(args, log=None):
    return run(f"cmake --build {args.build} -j2", args.timeout, log) == 0


def try_mutant(args, name, file, edits):
    """Returns STALE, INVALID, KILLED or SURVIVED; the file is restored in any case."""
    if stale(file, edits):
        return "STALE"
    path = os.path.join(ROOT, file)
    clean = mutated = open(path, encoding="utf-8").read()
    for original, replacement in edits:
        mutated = mutated.replace(original, replacement, 1)
    log = os.path.join(args.log, name + ".log") if args.log else None
    if log:
        open(log, "w").close()
    try:
        write(path, mutated)
        if not build(args, log):
            return "INVALID"
        status = run(args.test_cmd, args.timeout, log)
        return "SURVIVED" if status == 0 else "KILLED"
    finally:
        write(path, clean)


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--build", default="build/release", help="configured build directory (default build/release)")
    p.add_argument("--test-cmd", help="test command (default: ctest over the build directory, stop on failure)")
    p.add_argument("--only", help="comma-separated mutant names to run")
    p.add_argument("--list", action="store_true", help="list the mutants and exit")
    p.add_argument("--mutants", default=os.path.join(ROOT, "scripts", "mutants.txt"))
    p.add_argument("--log", help="directory for one build and test output file per mutant (default: none)")
    p.add_argument("--timeout", type=int, default=1800, help="seconds for one build or test run (default 1800)")
    args = p.parse_args()
    args.test_cmd = args.test_cmd or f"ctest --test-dir {args.build} -j2 --stop-on-failure --timeout 120"

    if args.log:
        os.makedirs(args.log, exist_ok=True)
    mutants = parse_mutants(args.mutants)
    if args.only:
        wanted = args.only.split(",")
        unknown = set(wanted) - {m[0] for m in mutants}
        if unknown:
            sys.exit(f"unknown mutants: {', '.join(sorted(unknown))}")
        mutants = [m for m in mutants if m[0] in wanted]
    if args.list:
        for name, file, desc, edits in mutants:
            mark = "STALE " if stale(file, edits) else ""
            print(f"{mark}{name:24} {file:32} {desc}")
        return 0

    # SIGTERM takes Ctrl-C's way out, through the finally that restores the file.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    results = {}
    try:
        for name, file, desc, edits in mutants:
            start = time.monotonic()
            verdict = try_mutant(args, name, file, edits)
            results[name] = verdict
            print(f"{verdict:8} {name:24} {time.monotonic() - start:5.0f}s  {desc}", flush=True)
    except KeyboardInterrupt:
        print("interrupted; the mutated file was put back", flush=True)
    finally:
        if not build(args):
            print(f"warning: the clean tree did not rebuild in {args.build}", flush=True)

    killed = [n for n, v in results.items() if v == "KILLED"]
    survived = [n for n, v in results.items() if v == "SURVIVED"]
    applied = len(killed) + len(survived)
    rate = 100.0 * len(killed) / applied if applied else 0.0
    print(f"mutants: {applied} applied, {len(killed)} killed, {len(survived)} survived, kill rate {rate:.0f}%")
    others = [f"{n} ({v})" for n, v in results.items() if v in ("INVALID", "STALE")]
    for label, names in (("not counted", others), ("survivors", survived)):
        if names:
            print(f"{label}: {', '.join(names)}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
