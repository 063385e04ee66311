#!/usr/bin/env python3
"""Per-test coverage: which lines of src/ and apps/ each test reaches, and which only it.

Every ctest case runs alone with a profile folder of its own (processes it starts, the
program and the daemon, write there too); each folder's lines are then read with llvm-cov.
A test that reaches no line that another test does not also reach drives the code down
paths the suite already takes: a trim may fold its own assertions into the test that
overlaps it most and drop the rest. The union of all tests is the suite's coverage, which
a trim must not lower.

The build folder must be configured with clang and coverage, e.g.
  CXX=clang++ cmake -G Ninja -B build-cov -DCMAKE_CXX_FLAGS="-O0 -fprofile-instr-generate \
      -fcoverage-mapping" -DCMAKE_EXE_LINKER_FLAGS=-fprofile-instr-generate
  cmake --build build-cov
Usage: scripts/coverage-per-test.py BUILD OUT [-j N] [-R REGEX]
Writes OUT/tests.json ({test: [file:line, ...]}) and OUT/report.txt, and prints the total.
"""
import argparse
import collections
import concurrent.futures
import glob
import json
import os
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent


def case_name(ctest_name):
    """Prefix/Suite.Name/Param and Suite.Name/Param -> Suite.Name: instances count as one."""
    parts = ctest_name.split("/")
    return parts[1] if len(parts) == 3 else parts[0]


def run_alone(test, folder, build):
    env = dict(os.environ, LLVM_PROFILE_FILE=str(folder / "%p-%m.profraw"))
    cwd = build
    for prop in test.get("properties", []):
        if prop["name"] == "ENVIRONMENT":
            env.update(kv.split("=", 1) for kv in prop["value"])
        elif prop["name"] == "WORKING_DIRECTORY":
            cwd = prop["value"]
    try:
        return subprocess.run(test["command"], cwd=cwd, env=env, timeout=900,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode
    except subprocess.TimeoutExpired:
        return "time limit"


def lines_reached(folder, objects, build):
    raws = glob.glob(str(folder / "*.profraw"))
    if not raws:
        return set()
    merged = folder / "merged.profdata"
    subprocess.run(["llvm-profdata", "merge", "-sparse", *raws, "-o", str(merged)],
                   stderr=subprocess.DEVNULL, check=True)
    lcov = subprocess.run(["llvm-cov", "export", "-format=lcov", "-skip-expansions",
                           "-instr-profile", str(merged), *objects],
                          cwd=build, capture_output=True, text=True).stdout
    reached, source = set(), None
    for line in lcov.splitlines():
        if line.startswith("SF:"):
            rel = os.path.relpath(line[3:], ROOT)
            source = rel if rel.startswith(("src/", "apps/")) else None
        elif source and line.startswith("DA:"):
            number, count = line[3:].split(",")[:2]
            if int(count) > 0:
                reached.add(f"{source}:{number}")
    for raw in raws:
        os.remove(raw)
    return reached


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("build")
    ap.add_argument("out")
    ap.add_argument("-j", type=int, default=2)
    ap.add_argument("-R", metavar="REGEX", help="only the tests whose name matches")
    args = ap.parse_args()
    build, out = Path(args.build).resolve(), Path(args.out).resolve()
    only = ["-R", args.R] if args.R else []
    tests = json.loads(subprocess.check_output(
        ["ctest", "--test-dir", str(build), "--show-only=json-v1", *only]))["tests"]
    candidates = glob.glob(str(build / "tests/test_*")) + glob.glob(str(build / "cirrovault*"))
    executables = [p for p in candidates if os.path.isfile(p) and os.access(p, os.X_OK)]
    if not executables:
        sys.exit(f"coverage: no test programs in {build}: build it first")
    objects = [executables[0]] + [a for p in executables[1:] for a in ("-object", p)]

    def one(numbered):
        number, test = numbered
        folder = out / f"{number:04d}"
        folder.mkdir(parents=True, exist_ok=True)
        code = run_alone(test, folder, build)
        return test["name"], code, lines_reached(folder, objects, build)

    by_case = collections.defaultdict(set)
    failed = []
    with concurrent.futures.ThreadPoolExecutor(args.j) as pool:
        for name, code, reached in pool.map(one, enumerate(tests)):
            print(f"{code} {name}: {len(reached)} lines", flush=True)
            if code != 0:
                failed.append(name)
            by_case[case_name(name)] |= reached
    reach_count = collections.Counter(line for lines in by_case.values() for line in lines)
    own = {name: sum(reach_count[line] == 1 for line in lines) for name, lines in by_case.items()}
    (out / "tests.json").write_text(json.dumps({k: sorted(v) for k, v in by_case.items()}))
    with open(out / "report.txt", "w") as report:
        report.write("unique  reached  test\n")
        for name in sorted(own, key=own.get):
            report.write(f"{own[name]:6d}  {len(by_case[name]):7d}  {name}\n")
    print(f"coverage: {len(tests)} tests, {len(reach_count)} lines of src/ and apps/ reached; "
          f"{sum(1 for n in own.values() if n == 0)} test cases reach no line of their own; "
          f"report in {out / 'report.txt'}")
    if failed:
        print("coverage: failed: " + ", ".join(failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
