#!/usr/bin/env python3
"""Measures what refusing an item that is no mail costs smtpfm.

    refuse.py BUILD [--runs 3] [--keep]

A content security host offers every item to every format manager, so most
items a manager sees are not its own, and refusing one should cost the same
at any size. This writes into BUILD/bench-inputs/refuse (fixed seeds):

  random.bin     200 MB of random bytes
  folder/        a few large files that are no mail: 64 MiB each of random
                 bytes, of zeros, of a log's text lines and of a repeating
                 binary record

and measures, each the best of --runs runs with the files in the page cache,
the wall clock time and the peak resident memory of

  smtpfm tree random.bin              (hardened, line ends made canonical)
  smtpfm tree --keep-line-ends random.bin
  smtpfm tree --strict random.bin     (the reference reading)
  smtpfm tree --no-uuencode random.bin  (smtp.so alone: uue.so looks for a
                                      uuencoded block anywhere in the file)
  smtpfm scan folder                  (hardened, then --strict, then
                                      --no-uuencode)
  ls -l folder                        (what listing the folder costs)

Every command runs under /usr/bin/time, which reports its peak memory; its
own start (about a millisecond) is in the times. The goal: tree under 10 ms
and 10 MB for the 200 MB file, scan as fast as listing. The table goes to
stdout in Markdown and to BUILD/refuse-results.md; the files are removed
afterwards unless --keep.
"""

import argparse
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

MIB = 1 << 20
RANDOM_SIZE = 200 * 1000 * 1000
FOLDER_FILE_SIZE = 64 * MIB
GOAL_SECONDS = 0.010
GOAL_BYTES = 10 * 1000 * 1000


def write_random(path, size, seed):
    rng = random.Random(seed)
    with open(path, "wb") as f:
        left = size
        while left > 0:
            chunk = min(left, 16 * MIB)
            f.write(rng.randbytes(chunk))
            left -= chunk


def write_repeated(path, size, unit):
    block = unit * (MIB // len(unit) + 1)
    with open(path, "wb") as f:
        left = size
        while left > 0:
            chunk = min(left, MIB)
            f.write(block[:chunk])
            left -= chunk


def write_log(path, size, seed):
    rng = random.Random(seed)
    levels = ("INFO", "DEBUG", "WARN", "ERROR")
    words = "request served cache miss upstream retry session opened closed worker queue".split()
    with open(path, "wb") as f:
        written = 0
        lines = []
        while written < size:
            line = ("2026-03-02T09:%02d:%02d.%03dZ %s [worker-%d] %s\n" % (
                rng.randrange(60), rng.randrange(60), rng.randrange(1000), rng.choice(levels),
                rng.randrange(16), " ".join(rng.choice(words) for _ in range(rng.randrange(4, 12))))).encode()
            lines.append(line)
            written += len(line)
            if len(lines) == 4096:
                f.write(b"".join(lines))
                lines = []
        f.write(b"".join(lines))


def make_inputs(folder):
    os.makedirs(os.path.join(folder, "folder"), exist_ok=True)
    write_random(os.path.join(folder, "random.bin"), RANDOM_SIZE, 11)
    write_random(os.path.join(folder, "folder", "archive.bin"), FOLDER_FILE_SIZE, 12)
    write_repeated(os.path.join(folder, "folder", "disk.img"), FOLDER_FILE_SIZE, b"\0")
    write_log(os.path.join(folder, "folder", "server.log"), FOLDER_FILE_SIZE, 13)
    write_repeated(os.path.join(folder, "folder", "records.dat"), FOLDER_FILE_SIZE,
                   bytes(range(256)) + b"\x7fELF\x02\x01\x01" + b"\xff" * 57)


def measure(command, runs):
    """(seconds, peak KiB): the fastest run's time, the largest peak."""
    best, peak = None, 0
    with tempfile.NamedTemporaryFile(mode="r") as report:
        for _ in range(runs):
            start = time.perf_counter()
            done = subprocess.run(["/usr/bin/time", "-f", "%M", "-o", report.name] + command,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
            seconds = time.perf_counter() - start
            if done.returncode != 0:
                sys.exit("refuse: %s failed with %d: %s" % (" ".join(command), done.returncode,
                                                           done.stderr.decode(errors="replace").strip()))
            report.seek(0)
            peak = max(peak, int(report.read().split()[-1]))
            best = seconds if best is None else min(best, seconds)
    return best, peak


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build")
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--keep", action="store_true", help="keep the generated files")
    args = parser.parse_args()

    smtpfm = os.path.join(args.build, "bin", "smtpfm")
    if not os.access(smtpfm, os.X_OK):
        sys.exit("refuse: %s is missing (make build)" % smtpfm)
    folder = os.path.join(args.build, "bench-inputs", "refuse")
    make_inputs(folder)
    random_bin = os.path.join(folder, "random.bin")
    non_mail = os.path.join(folder, "folder")
    folder_bytes = sum(os.path.getsize(os.path.join(non_mail, name)) for name in os.listdir(non_mail))

    rows = [
        ("smtpfm tree, 200 MB of random bytes", [smtpfm, "tree", random_bin]),
        ("smtpfm tree --keep-line-ends, the same", [smtpfm, "tree", "--keep-line-ends", random_bin]),
        ("smtpfm tree --strict, the same", [smtpfm, "tree", "--strict", random_bin]),
        ("smtpfm tree --no-uuencode, the same", [smtpfm, "tree", "--no-uuencode", random_bin]),
        ("smtpfm scan, %d files of %d MiB that are no mail" % (len(os.listdir(non_mail)), FOLDER_FILE_SIZE // MIB),
         [smtpfm, "scan", non_mail]),
        ("smtpfm scan --strict, the same", [smtpfm, "scan", "--strict", non_mail]),
        ("smtpfm scan --no-uuencode, the same", [smtpfm, "scan", "--no-uuencode", non_mail]),
        ("ls -l, the same folder", ["ls", "-l", non_mail]),
    ]
    results = []
    for label, command in rows:
        seconds, peak = measure(command, args.runs)
        results.append((label, seconds, peak))
        print("  %-50s %8.3f s  peak %d KiB" % (label, seconds, peak), file=sys.stderr)

    listing = results[-1][1]
    lines = ["Refusing what is no mail: best of %d runs, files in the page cache (%d MB in the folder)." % (
        args.runs, folder_bytes // 1000000), "", "| command | seconds | peak MiB | goal | met |",
        "|---|---:|---:|---|---|"]
    for label, seconds, peak in results:
        if label.startswith("smtpfm tree"):
            goal = "under %d ms and %d MB" % (GOAL_SECONDS * 1000, GOAL_BYTES // 1000000)
            met = seconds < GOAL_SECONDS and peak * 1024 < GOAL_BYTES
            ratio = ""
        elif label.startswith("smtpfm scan"):
            goal = "as fast as ls -l"
            met = seconds <= listing
            ratio = " (%.0fx ls)" % (seconds / listing)
        else:
            goal, met, ratio = "", None, ""
        lines.append("| %s | %.3f%s | %.1f | %s | %s |" % (
            label, seconds, ratio, peak / 1024, goal, "" if met is None else ("yes" if met else "no")))
    text = "\n".join(lines) + "\n"
    print(text)
    with open(os.path.join(args.build, "refuse-results.md"), "w") as f:
        f.write(text)

    if not args.keep:
        shutil.rmtree(folder)


if __name__ == "__main__":
    main()
