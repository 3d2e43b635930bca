#!/usr/bin/env python3
"""Mutation check: does the test suite notice realistic bugs in src/?

Each mutant in scripts/mutants.txt (format described at its top) is applied to
the working tree on its own, the build directory is rebuilt and the test
command is run. A failing test command (or one that runs out of time) kills the
mutant; a passing one lets it survive, which means no test would catch that
bug. A mutant that does not compile is INVALID; one whose original text no
longer occurs exactly once in its file is STALE (src/ has moved on; fix or drop
the entry). Neither counts in the kill rate.

The mutated file is always put back, also on Ctrl-C or SIGTERM, and the clean
tree is rebuilt at the end. Only SIGKILL can leave a mutant in place; then
`git checkout -- src` restores the tree.

    python3 scripts/mutate.py                      # all mutants, build/release
    python3 scripts/mutate.py --only spool_kept,skip_prefix
    python3 scripts/mutate.py --list
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


def run(cmd, timeout):
    """Runs cmd in its own process group; returns its status, or None after a
    timeout. The whole group is killed on a timeout or an interrupt, so no test
    process outlives its mutant."""
    proc = subprocess.Popen(cmd, shell=True, cwd=ROOT, start_new_session=True,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        return proc.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        return None
    finally:
        if proc.poll() is None:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()


def interrupt(signum, frame):
    """SIGTERM takes the same way out as Ctrl-C, through the restoring finally."""
    raise KeyboardInterrupt


def stale(file, edits):
    """True when the file is gone or an original text is not there exactly once."""
    path = os.path.join(ROOT, file)
    if not os.path.isfile(path):
        return True
    text = open(path, encoding="utf-8").read()
    return any(text.count(original) != 1 for original, _ in edits)


def build(args):
    return run(f"cmake --build {args.build} -j2", args.timeout) == 0


def try_mutant(args, file, edits):
    """Returns STALE, INVALID, KILLED or SURVIVED; the file is restored in any case."""
    if stale(file, edits):
        return "STALE"
    path = os.path.join(ROOT, file)
    with open(path, encoding="utf-8") as f:
        clean = mutated = f.read()
    for original, replacement in edits:
        mutated = mutated.replace(original, replacement, 1)
    try:
        with open(path, "w", encoding="utf-8") as f:
            f.write(mutated)
        if not build(args):
            return "INVALID"
        status = run(args.test_cmd, args.timeout)
        return "SURVIVED" if status == 0 else "KILLED"
    finally:
        with open(path, "w", encoding="utf-8") as f:
            f.write(clean)


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--build", default="build/release", help="configured build directory (default build/release)")
    p.add_argument("--test-cmd", help="test command (default: ctest over the build directory, stop on failure)")
    p.add_argument("--only", help="comma-separated mutant names to run")
    p.add_argument("--list", action="store_true", help="list the mutants and exit")
    p.add_argument("--mutants", default=os.path.join(ROOT, "scripts", "mutants.txt"))
    p.add_argument("--timeout", type=int, default=1800, help="seconds for one build or test run (default 1800)")
    args = p.parse_args()
    args.test_cmd = args.test_cmd or f"ctest --test-dir {args.build} -j2 --stop-on-failure --timeout 120"

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

    signal.signal(signal.SIGTERM, interrupt)
    results = {}
    try:
        for name, file, desc, edits in mutants:
            start = time.monotonic()
            verdict = try_mutant(args, file, edits)
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
    if others:
        print("not counted: " + ", ".join(others))
    if survived:
        print("survivors: " + ", ".join(survived))
    return 0


if __name__ == "__main__":
    sys.exit(main())
