#!/usr/bin/env python3
"""Seeded mutation run over src/: how much of the code the tests really watch.

Each mutant changes one line of one .cpp file in place (a comparison's boundary moved,
a statement dropped, a constant changed by one, a condition negated), rebuilds the test
programs that link that layer, and runs them own layer first until one fails. A mutant
is killed when a program fails or passes its time limit (an endless loop), survives when
all pass, and counts as not compiled when the build refuses it. The original file is put
back after each mutant, on Ctrl-C and SIGTERM too; a run killed outright leaves a note in
BUILD/mutants/ that the next run restores from first.

Usage and figures: tests/README.md.
"""
import argparse
import json
import os
import random
import re
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent

# Test programs bottom-up, with the source folder each one is the own tests of. Every
# program links its layer and all below; the platform layer is one library for all four.
PROGRAMS = [
    ("platform/os", "test_platform_os"),
    ("platform/framework", "test_platform_framework"),
    ("platform/store", "test_platform_store"),
    ("platform/view", "test_platform_view"),
    ("support", "test_support"),
    ("service", "test_service"),
    ("engine/task", "test_task"),
    ("engine/manager", "test_manager"),
    ("ui", "test_ui"),
    (None, "test_integration"),
    (None, "test_apps"),
]

COMPARISON = re.compile(r" (==|!=|<=|>=|<|>) ")
FLIPPED = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}
INTEGER = re.compile(r"(?<![\w.])\d+(?![\w.'])")
CONDITION = re.compile(r"\b(if|while) \(")
# A whole statement on one line that only acts: a call, an assignment, ++/--.
STATEMENT = re.compile(r"^\s*(\+\+|--)?[A-Za-z_][\w:.\->\[\]()]*"
                       r"(\(.*\)|\s*[-+*/|&]?=\s.*|\+\+|--);\s*$")
NOT_STATEMENT = re.compile(r"^\s*(return|break|continue|case|default|goto|throw|using|typedef|"
                           r"delete|co_\w+)\b")


def masked(line):
    """The line with string and character literals and a trailing comment blanked, so
    that patterns only match code; positions stay those of the original."""
    out, i, quote = list(line), 0, None
    while i < len(line):
        c = line[i]
        if quote:
            if c == "\\":
                out[i] = " "
                if i + 1 < len(line):
                    out[i + 1] = " "
                i += 2
                continue
            if c == quote:
                quote = None
            else:
                out[i] = " "
        elif c in "\"'":
            # a digit separator (1'000) is not a quote
            if c == "'" and line[i - 1:i].isalnum() and line[i + 1:i + 2].isalnum():
                i += 1
                continue
            quote = c
        elif line.startswith("//", i):
            return "".join(out[:i]) + " " * (len(line) - i)
        i += 1
    return "".join(out)


def closing(mask, start):
    """The index of the parenthesis that closes the one at start, on the same line."""
    depth = 0
    for i in range(start, len(mask)):
        if mask[i] == "(":
            depth += 1
        elif mask[i] == ")":
            depth -= 1
            if depth == 0:
                return i
    return None


def swap(line, start, end, text):
    return line[:start] + text + line[end:]


def sites_of(path):
    """Every mutant of one file: (line number, kind, line, mutated line)."""
    lines = path.read_text(encoding="utf-8", errors="surrogateescape").split("\n")
    found, in_comment, previous = [], False, ";"
    for number, line in enumerate(lines, 1):
        stripped = line.strip()
        if in_comment:
            in_comment = "*/" not in stripped
            continue
        if stripped.startswith("/*"):
            in_comment = "*/" not in stripped
            continue
        if not stripped or stripped.startswith(("#", "//", "*")):
            continue
        mask = masked(line)
        for m in COMPARISON.finditer(mask):
            op = m.group(1)
            flipped = swap(line, m.start(1), m.end(1), FLIPPED[op])
            found.append((number, "comparison", line, flipped))
        for m in INTEGER.finditer(mask):
            value = int(m.group(0))
            found.append((number, "constant", line, swap(line, m.start(), m.end(), str(value + 1))))
        for m in CONDITION.finditer(mask):
            open_at = m.end() - 1
            close_at = closing(mask, open_at)
            if close_at is not None and "constexpr" not in mask[m.start():open_at]:
                inner = line[open_at + 1:close_at]
                negated = swap(line, open_at + 1, close_at, "!(" + inner + ")")
                found.append((number, "condition", line, negated))
        code = mask.rstrip()
        # Only a statement that starts its own line, so that no continuation is cut;
        # an empty statement takes its place, which also serves as a braceless body.
        if (STATEMENT.match(code) and not NOT_STATEMENT.match(code)
                and code.count("(") == code.count(")")
                and previous.endswith((";", "{", "}", ":", ")"))):
            indent = line[:len(line) - len(line.lstrip())]
            found.append((number, "statement", line, indent + ";"))
        if code.strip():
            previous = code.strip()
    return found


def all_sites(layer):
    base = ROOT / "src" / layer if layer else ROOT / "src"
    if not base.is_dir():
        sys.exit(f"mutants: no such folder {base}")
    sites = []
    for path in sorted(base.rglob("*.cpp")):
        rel = path.relative_to(ROOT).as_posix()
        sites += [(rel, *site) for site in sites_of(path)]
    return sites


def describe(rel, number, kind, original, new):
    return f"{rel}:{number}: {kind}: `{original.strip()}` -> `{new.strip()}`"


def programs_for(rel, available):
    """The test programs linking the file's layer, its own first."""
    folder = rel[len("src/"):]
    own = [p for d, p in PROGRAMS if d and folder.startswith(d + "/")]
    if folder.startswith("platform/"):
        linking = [p for _, p in PROGRAMS]
    else:
        index = next(i for i, (d, _) in enumerate(PROGRAMS) if d and folder.startswith(d + "/"))
        linking = [p for _, p in PROGRAMS[index:]]
    ordered = own + [p for p in linking if p not in own]
    return [p for p in ordered if p in available]


class Guard:
    """Puts the original file back after each mutant and on every way out but SIGKILL;
    the note in the build folder covers that one at the next run."""

    def __init__(self, note_dir):
        self.note_dir = note_dir
        self.note_dir.mkdir(parents=True, exist_ok=True)
        self.path_note = note_dir / "pending.path"
        self.text_note = note_dir / "pending.orig"
        self.child = None

    def recover(self):
        if self.path_note.exists():
            print(f"mutants: putting back {self.path_note.read_text().strip()}, "
                  "left mutated by an earlier run that was killed")
            self.restore()

    def apply(self, rel, number, new_line):
        target = ROOT / rel
        original = target.read_bytes()
        self.text_note.write_bytes(original)
        self.path_note.write_text(rel + "\n")
        lines = original.decode("utf-8", "surrogateescape").split("\n")
        lines[number - 1] = new_line
        target.write_bytes("\n".join(lines).encode("utf-8", "surrogateescape"))

    def restore(self):
        if not self.path_note.exists():
            return
        target = ROOT / self.path_note.read_text().strip()
        target.write_bytes(self.text_note.read_bytes())
        os.utime(target)  # newer than the mutant's object, so the next build redoes it
        self.clear()

    def clear(self):
        self.path_note.unlink(missing_ok=True)
        self.text_note.unlink(missing_ok=True)

    def run(self, command, limit, cwd):
        """(exit code, seconds); None for the code when the limit passed."""
        started = time.monotonic()
        self.child = subprocess.Popen(command, cwd=cwd, stdin=subprocess.DEVNULL,
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                      start_new_session=True)
        try:
            code = self.child.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            self.stop_child()
            code = None
        self.child = None
        return code, time.monotonic() - started

    def stop_child(self):
        if self.child and self.child.poll() is None:
            try:
                os.killpg(self.child.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            self.child.wait()


def failed_tests(report):
    """The names of the tests that failed, from a program's JSON report; none when the
    program died before writing it (a crash or the time limit)."""
    try:
        suites = json.loads(report.read_text())["testsuites"]
    except (OSError, ValueError, KeyError):
        return []
    finally:
        report.unlink(missing_ok=True)
    return [f"{suite['name']}.{test['name']}" for suite in suites
            for test in suite.get("testsuite", []) if test.get("failures")]


def build(build_dir, targets, guard, limit):
    code, _ = guard.run(["cmake", "--build", str(build_dir), "--target", *targets], limit, ROOT)
    return code == 0


def main():
    ap = argparse.ArgumentParser(description="Seeded mutants of src/, run against the tests.")
    ap.add_argument("-n", "--count", type=int, default=20, help="mutants to make (default 20)")
    ap.add_argument("-s", "--seed", type=int, default=1, help="same seed, same tree: same mutants")
    ap.add_argument("-l", "--layer", default="", help="only this folder of src/, e.g. service")
    ap.add_argument("-b", "--build", default="build", help="a configured build folder")
    ap.add_argument("--own", action="store_true", help="run only the layer's own test program")
    ap.add_argument("--within", action="append", default=[], metavar="FOLDER",
                    help="of the same N mutants, run only those under this folder of src/ "
                         "(repeatable), so that one run can be done in parts")
    ap.add_argument("--recheck", metavar="LOG",
                    help="of the same N mutants, run only those an earlier run's printed log "
                         "says were killed: after a trim of the tests, a mutant that survived "
                         "before cannot be killed now, so the killed share is judged faster")
    ap.add_argument("--list", action="store_true", help="print the mutants and stop")
    ap.add_argument("--build-limit", type=int, default=900, help="seconds a rebuild may take")
    args = ap.parse_args()

    build_dir = (ROOT / args.build).resolve()
    if not (build_dir / "build.ninja").exists() and not (build_dir / "Makefile").exists():
        sys.exit(f"mutants: {build_dir} is not configured: run `make build` first")
    guard = Guard(build_dir / "mutants")
    guard.recover()

    sites = all_sites(args.layer.strip("/"))
    chosen = sorted(random.Random(args.seed).sample(sites, min(args.count, len(sites))))
    print(f"mutants: {len(chosen)} of {len(sites)} possible in src/{args.layer}, seed {args.seed}")
    if args.within:
        within = tuple("src/" + w.strip("/") + "/" for w in args.within)
        chosen = [site for site in chosen if site[0].startswith(within)]
        print(f"mutants: {len(chosen)} of them under {', '.join(within)}")
    if args.recheck:
        killed = set(re.findall(r"^\[\d+/\d+\] killed[^\n]*?: (src/\S+: \w+: `.*`)$",
                                Path(args.recheck).read_text(), re.M))
        chosen = [site for site in chosen if describe(*site) in killed]
        print(f"mutants: {len(chosen)} of them killed in {args.recheck}")
    if args.list:
        for site in chosen:
            print(describe(*site))
        return 0

    def leave(signum, _frame):
        guard.stop_child()
        guard.restore()
        print(f"\nmutants: stopped by signal {signum}; the tree is as it was, but "
              f"{args.build} may hold a mutant's objects until its next build", flush=True)
        os._exit(128 + signum)

    for s in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(s, leave)

    listed = subprocess.run(["cmake", "--build", str(build_dir), "--target", "help"],
                            capture_output=True, text=True).stdout
    available = {p for _, p in PROGRAMS if re.search(rf"^{p}\b", listed, re.M)}
    def programs_of(rel):
        programs = programs_for(rel, available)
        return programs[:1] if args.own else programs

    needed = sorted({p for rel, *_ in chosen for p in programs_of(rel)},
                    key=[p for _, p in PROGRAMS].index)

    # The unmutated programs must pass, and their times set each one's limit.
    print("mutants: building and running the unmutated test programs once")
    if not build(build_dir, needed, guard, args.build_limit):
        sys.exit("mutants: the unmutated tree does not build")
    limits = {}
    for program in needed:
        code, seconds = guard.run([str(build_dir / "tests" / program)], 1800, build_dir / "tests")
        if code != 0:
            sys.exit(f"mutants: {program} fails without any mutant; fix that first")
        limits[program] = 3 * seconds + 30
        print(f"  {program}: {seconds:.0f} s, limit {limits[program]:.0f} s")

    tally = {"killed": 0, "survived": 0, "not compiled": 0}
    survivors, timeouts = [], 0
    try:
        for i, (rel, number, kind, original, new) in enumerate(chosen, 1):
            programs = programs_of(rel)
            what = describe(rel, number, kind, original, new)
            guard.apply(rel, number, new)
            verdict, by = "survived", ""
            try:
                for program in programs:
                    if not build(build_dir, [program], guard, args.build_limit):
                        verdict = "not compiled"
                        break
                    report = guard.note_dir / "tests.json"
                    code, _ = guard.run([str(build_dir / "tests" / program),
                                         f"--gtest_output=json:{report}"],
                                        limits[program], build_dir / "tests")
                    failed = failed_tests(report)
                    if code != 0:
                        verdict = "killed"
                        by = f" by {program}" + (" (time limit)" if code is None else "")
                        if failed:  # which tests caught it: a trim must leave one of them
                            more = " ..." if len(failed) > 4 else ""
                            by += f" [{', '.join(failed[:4])}{more}]"
                        timeouts += code is None
                        break
            finally:
                guard.restore()
            tally[verdict] += 1
            if verdict == "survived":
                survivors.append(what)
            print(f"[{i}/{len(chosen)}] {verdict}{by}: {what}", flush=True)
    finally:
        guard.restore()
        print("mutants: rebuilding the unmutated programs")
        build(build_dir, needed, guard, args.build_limit)

    judged = tally["killed"] + tally["survived"]
    share = 100.0 * tally["killed"] / judged if judged else 0.0
    part = f" (those under {', '.join(args.within)})" if args.within else ""
    summary = [f"seed {args.seed}, {len(chosen)} of {args.count} mutants of src/{args.layer}{part}:",
               f"killed {tally['killed']} ({timeouts} by time limit), "
               f"survived {tally['survived']}, not compiled {tally['not compiled']}; "
               f"killed share {share:.1f}% of those that compiled"]
    summary += ["survivors:"] + [f"  {s}" for s in survivors] if survivors else []
    name = "+".join([args.layer.strip("/")] + args.within).replace("/", "-").strip("+") or "src"
    report = build_dir / "mutants" / f"report-{name}-seed{args.seed}-n{args.count}.txt"
    report.write_text("\n".join(summary) + "\n")
    print("\n".join(summary))
    print(f"mutants: report in {report}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
