#!/usr/bin/env python3
"""Mutation check: which small faults in the code does no test catch?

    tools/mutants.py FILE... [-n N] [--seed S] [--build DIR] [--out JSON]
    make mutants FILES="reader/tokeniser.cc codecs/base64.cc" [MUTANTS=N] [SEED=S]

For each source file it lists the mutants that the operators below can make,
takes a deterministic sample of N of them over all files (all when N is 0),
and for each mutant in turn: writes the fault into the file, rebuilds the
test executable of the file's folder in a build of its own (Debug, -O0,
ccache), runs that executable, and puts the file back, whatever happens.
A mutant is caught when a test fails or the run hangs past --timeout; one
that does not compile says nothing and is left out of the score.

Operators (one change per mutant, on code only: comments, strings,
character literals and preprocessor lines are never touched):
  cmp    a comparison flipped (== !=) or moved by one (< <=, > >=)
  logic  && and || swapped
  arith  + and - swapped (binary, with spaces around)
  const  an integer constant moved by one (0 -> 1, N -> N+1)
  neg    the condition of an if or while negated
  drop   a statement dropped (a call, an assignment, ++/--, break, continue)

The report lists every mutant that survived (file:line, the change), the
share caught per file, and for each test the mutants that only it caught:
a test that catches nothing that another test does not also catch is a
candidate to fold or drop. The whole result goes to --out as JSON.
"""

import argparse
import json
import os
import random
import re
import signal
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# The test executable that covers a source file: the first prefix that
# matches names the CMake target and its path in the build.
TEST_TARGETS = [
    ("encoding/block_scanner", "block_scanner_test", "encoding/block_scanner_test"),
    ("encoding/", "encoding_test", "encoding/encoding_test"),
    ("codecs/", "codecs_test", "codecs/codecs_test"),
    ("reader/", "reader_test", "reader/reader_test"),
    ("manager/", "manager_test", "manager/manager_test"),
    ("mime/", "mime_test", "mime/mime_test"),
    ("shell/", "shell_test", "shell/shell_test"),
    ("host/", "host_test", "host/host_test"),
    ("platform/vek/", "vek_test", "platform/vek/vek_test"),
    ("platform/mib/", "mib_test", "platform/mib/mib_test"),
    ("platform/zor/", "zor_test", "platform/zor/zor_test"),
    ("platform/tav/", "zor_test", "platform/zor/zor_test"),
]

CMP = {" == ": " != ", " != ": " == ", " < ": " <= ", " <= ": " < ", " > ": " >= ", " >= ": " > "}
LOGIC = {" && ": " || ", " || ": " && "}
ARITH = {" + ": " - ", " - ": " + "}
INT = re.compile(r"(?<![\w.])(\d+)(u|U|ul|UL|ull|ULL)?(?![\w.])")
COND = re.compile(r"\b(if|while) \(")
# A statement worth dropping: a call, an assignment or an increment, ending
# the line; declarations are left alone (dropping one does not compile).
DROP = re.compile(r"^\s*(?:[\w.\->\[\]*]+(?:\([^;]*\))?\s*(?:[-+*/|&^]?=|\+\+|--)[^;]*|(?:\+\+|--)[\w.\->]+"
                  r"|[\w.:\->]+\([^;]*\)|break|continue);\s*$")


def code_mask(text):
    """For each character of `text`: True where it is code (not a comment,
    a string, a character literal or a preprocessor line)."""
    mask = [True] * len(text)
    i, n = 0, len(text)
    line_start = True
    while i < n:
        c = text[i]
        if line_start and text[i:].lstrip(" \t").startswith("#"):
            j = text.find("\n", i)
            j = n if j < 0 else j
            for k in range(i, j):
                mask[k] = False
            i = j
            continue
        line_start = c == "\n"
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            for k in range(i, j):
                mask[k] = False
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            for k in range(i, j):
                mask[k] = False
            i = j
        elif c in "\"'":
            if c == '"' and i > 0 and text[i - 1] == "R":  # raw string R"(...)"
                close = text.find(')"', i)
                j = n if close < 0 else close + 2
            else:
                j = i + 1
                while j < n and text[j] != c:
                    j += 2 if text[j] == "\\" else 1
                j += 1
            for k in range(i, min(j, n)):
                mask[k] = False
            i = j
        else:
            i += 1
    return mask


def closing_paren(line, start):
    depth = 0
    for k in range(start, len(line)):
        if line[k] == "(":
            depth += 1
        elif line[k] == ")":
            depth -= 1
            if depth == 0:
                return k
    return -1


def mutants_of(path):
    """Every mutant of one file: (line number, operator, old line, new line)."""
    text = open(os.path.join(ROOT, path)).read()
    mask = code_mask(text)
    out = []
    offset = 0
    for number, line in enumerate(text.split("\n"), 1):
        code = [mask[offset + k] if offset + k < len(mask) else False for k in range(len(line))]
        offset += len(line) + 1
        if not any(code) or line.strip().startswith(("static_assert", "#")):
            continue

        def is_code(start, length):
            return all(code[start:start + length])

        for table, op in ((CMP, "cmp"), (LOGIC, "logic"), (ARITH, "arith")):
            for old, new in table.items():
                for m in re.finditer(re.escape(old), line):
                    # "a - b" only; never a unary minus or a pointer arrow.
                    if is_code(m.start(), len(old)):
                        out.append((number, op, line, line[:m.start()] + new + line[m.end():]))
        for m in INT.finditer(line):
            if is_code(m.start(), len(m.group(0))) and "[" not in line[max(0, m.start() - 1):m.start()]:
                value = int(m.group(1))
                if value > 1 << 32:
                    continue
                out.append((number, "const", line, line[:m.start(1)] + str(value + 1 if value != 1 else 0)
                            + line[m.end(1):]))
        for m in COND.finditer(line):
            open_at = m.end() - 1
            close = closing_paren(line, open_at)
            if close > 0 and is_code(m.start(), close - m.start()):
                inner = line[open_at + 1:close]
                out.append((number, "neg", line, line[:open_at + 1] + "!(" + inner + ")" + line[close:]))
        if DROP.match(line) and all(code[len(line) - len(line.lstrip()):]):
            indent = line[:len(line) - len(line.lstrip())]
            out.append((number, "drop", line, indent + ";"))
    return out


def target_of(path):
    for prefix, target, binary in TEST_TARGETS:
        if path.startswith(prefix):
            return target, binary
    sys.exit("mutants: no test executable covers %s" % path)


def run(cmd, timeout=None, env=None):
    return subprocess.run(cmd, cwd=ROOT, capture_output=True, encoding="utf-8", errors="replace", timeout=timeout,
                          env=env)


def configure(build):
    if os.path.exists(os.path.join(build, "Makefile")):
        return
    launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if run(["sh", "-c", "command -v ccache"]).returncode == 0 else []
    result = run(["cmake", "-S", ".", "-B", build, "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0",
                  "-DSMTPFM_BENCH=OFF"] + launcher)
    if result.returncode != 0:
        sys.exit("mutants: configuring %s failed:\n%s" % (build, result.stderr))


def run_tests(build, binary, timeout):
    """(outcome, failed tests): outcome is "pass", "fail" or "hang"."""
    env = dict(os.environ, SMTPFM_SOURCE_DIR=ROOT)
    with tempfile.NamedTemporaryFile(suffix=".json", delete=False) as f:
        report = f.name
    try:
        result = run([os.path.join(build, binary), "--gtest_brief=1", "--gtest_output=json:" + report],
                     timeout=timeout, env=env)
    except subprocess.TimeoutExpired:
        os.unlink(report)
        return "hang", []
    failed = []
    try:
        data = json.load(open(report))
        for suite in data.get("testsuites", []):
            for test in suite.get("testsuite", []):
                if test.get("failures"):
                    failed.append(suite["name"] + "." + test["name"])
    except (OSError, ValueError):
        pass  # the run died before writing its report: a crash, caught
    finally:
        if os.path.exists(report):
            os.unlink(report)
    return ("pass" if result.returncode == 0 else "fail"), failed


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("files", nargs="+")
    parser.add_argument("-n", "--mutants", type=int, default=0, help="sample size over all files (0: all)")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--build", default=os.path.join(ROOT, "build-mutants"))
    parser.add_argument("--timeout", type=float, default=60.0, help="seconds before a test run counts as hung")
    parser.add_argument("--out", help="JSON result (default: BUILD/mutants.json)")
    parser.add_argument("--list", action="store_true", help="only list the sampled mutants")
    parser.add_argument("--report", metavar="JSON", help="only print the report of an earlier run")
    args = parser.parse_args()

    if args.report:
        report(json.load(open(args.report))["results"], os.devnull)
        return 0
    # Tests and their helpers are what judges a mutant, never a place for one.
    files = [os.path.relpath(os.path.abspath(f), ROOT) for f in args.files
             if not f.endswith("_test.cc") and "test_" not in os.path.basename(f)]
    candidates = [(f,) + m for f in files for m in mutants_of(f)]
    rng = random.Random(args.seed)
    sample = candidates if args.mutants <= 0 or args.mutants >= len(candidates) else rng.sample(candidates,
                                                                                                   args.mutants)
    sample.sort(key=lambda m: (m[0], m[1]))
    print("mutants: %d of %d candidates in %d files" % (len(sample), len(candidates), len(files)), file=sys.stderr)
    if args.list:
        for f, number, op, old, new in sample:
            print("%s:%d %s: %s" % (f, number, op, new.strip()))
        return 0

    configure(args.build)
    originals = {f: open(os.path.join(ROOT, f)).read() for f in files}

    def restore(*_):
        for f, text in originals.items():
            with open(os.path.join(ROOT, f), "w") as out:
                out.write(text)
        if _:
            sys.exit("mutants: interrupted; files restored")

    signal.signal(signal.SIGINT, restore)
    signal.signal(signal.SIGTERM, restore)

    # The unmutated tests must pass, or nothing can be learnt.
    for target, binary in sorted({target_of(f) for f in files}):
        build = run(["cmake", "--build", args.build, "-j2", "--target", target])
        if build.returncode != 0:
            sys.exit("mutants: %s does not build:\n%s" % (target, build.stdout[-3000:]))
        outcome, failed = run_tests(args.build, binary, args.timeout)
        if outcome != "pass":
            sys.exit("mutants: %s fails without any mutant: %s" % (target, ", ".join(failed) or outcome))

    # Outcomes are kept as they come, so that a run that was stopped goes
    # on where it stopped.
    out_path = args.out or os.path.join(args.build, "mutants.json")
    partial_path = out_path + ".partial"
    done = {}
    if os.path.exists(partial_path):
        for line in open(partial_path):
            r = json.loads(line)
            done[r["file"], r["line"], r["new"]] = r
    partial = open(partial_path, "a")
    results = []
    started = time.time()
    try:
        for index, (f, number, op, old, new) in enumerate(sample, 1):
            if (f, number, new.strip()) in done:
                results.append(done[f, number, new.strip()])
                continue
            target, binary = target_of(f)
            lines = originals[f].split("\n")
            lines[number - 1] = new
            with open(os.path.join(ROOT, f), "w") as out:
                out.write("\n".join(lines))
            build = run(["cmake", "--build", args.build, "-j2", "--target", target])
            if build.returncode != 0:
                outcome, failed = "invalid", []
            else:
                outcome, failed = run_tests(args.build, binary, args.timeout)
            restore()
            results.append({"file": f, "line": number, "op": op, "old": old.strip(), "new": new.strip(),
                            "outcome": outcome, "failed": failed})
            partial.write(json.dumps(results[-1]) + "\n")
            partial.flush()
            print("[%d/%d %.0fs] %s:%d %s %s" % (index, len(sample), time.time() - started, f, number, op,
                                                 outcome), file=sys.stderr)
    finally:
        restore()
        # Leave the build as the files are now.
        for target in sorted({target_of(f)[0] for f in files}):
            run(["cmake", "--build", args.build, "-j2", "--target", target])

    report(results, out_path)
    partial.close()
    os.unlink(partial_path)
    return 0


def test_sizes():
    """Lines of code of each TEST and TEST_F in the folders' test files, by
    the name gtest gives it ("Suite.Name")."""
    sizes = {}
    header = re.compile(r"^TEST(?:_F)?\((\w+),\s*(\w+)\)")
    for prefix, _, binary in TEST_TARGETS:
        folder = os.path.join(ROOT, os.path.dirname(binary))
        for name in sorted(os.listdir(folder)):
            if not name.endswith("_test.cc"):
                continue
            current = None
            for line in open(os.path.join(folder, name), encoding="utf-8", errors="replace"):
                m = header.match(line)
                if m:
                    current = m.group(1) + "." + m.group(2)
                    sizes[current] = 0
                elif line.startswith("}"):
                    current = None
                if current and line.strip() and not line.strip().startswith("//"):
                    sizes[current] += 1
    return sizes


def report(results, out_path):
    valid = [r for r in results if r["outcome"] != "invalid"]
    caught = [r for r in valid if r["outcome"] != "pass"]
    print("\n== survivors (no test caught these)")
    for r in valid:
        if r["outcome"] == "pass":
            print("%s:%d %s: %s" % (r["file"], r["line"], r["op"], r["new"]))
    print("\n== caught per file")
    for f in sorted({r["file"] for r in valid}):
        mine = [r for r in valid if r["file"] == f]
        print("%-36s %3d / %3d" % (f, sum(r["outcome"] != "pass" for r in mine), len(mine)))
    # Tests that alone catch a mutant earn their place; the others are
    # candidates to fold into a table or drop.
    only = {}
    everyone = set()
    for r in caught:
        everyone.update(r["failed"])
        if len(r["failed"]) == 1:
            only.setdefault(r["failed"][0], []).append("%s:%d" % (r["file"], r["line"]))
    print("\n== tests that alone catch a mutant")
    for test in sorted(only):
        print("%-60s %d" % (test, len(only[test])))
    print("\n== tests that catch mutants, none alone")
    for test in sorted(everyone - set(only)):
        print("  " + test)
    # Tests that can go while every caught mutant stays caught: the largest
    # first, each dropped when every mutant it catches is caught by a test
    # that stays. A mutant caught without a report (a crash) names no test
    # and holds none.
    sizes = test_sizes()
    kills = {}
    for index, r in enumerate(caught):
        for test in r["failed"]:
            kills.setdefault(test, set()).add(index)
    holders = {index: set(r["failed"]) for index, r in enumerate(caught)}
    removable = []
    for test in sorted(sizes, key=lambda t: -sizes[t]):
        mine = kills.get(test, set())
        if all(len(holders[index] - {test}) > 0 for index in mine):
            removable.append(test)
            for index in mine:
                holders[index].discard(test)
    print("\n== tests that can go with every caught mutant still caught (lines)")
    for test in removable:
        print("%-60s %d" % (test, sizes[test]))
    score = len(caught) / len(valid) if valid else 0.0
    print("\nmutants: %d valid (%d did not compile), %d caught: %.1f%%" % (
        len(valid), len(results) - len(valid), len(caught), 100 * score))
    with open(out_path, "w") as f:
        json.dump({"score": score, "valid": len(valid), "caught": len(caught), "results": results}, f, indent=1)


if __name__ == "__main__":
    sys.exit(main())
