#!/usr/bin/env python3
"""Runs the explode drivers on the six inputs and prints the comparison.

    run_bench.py --build BUILD --peers PEERS_BUILD --inputs INPUTS [--seconds 2] [--runs 3]

Drivers (each `NAME REPEAT FILE...`, printing `bytes_in=N bytes_decoded=N
leaves=N subjects=N failures=N seconds=S mb_per_s=X peak_kib=N`): smtpfm
(BUILD/bench/explode) in the reference profile and, as "hardened", in the
hardened profile, GMime, mimetic and libetpan (PEERS_BUILD/explode_gmime,
explode_mimetic, explode_libetpan) and the memchr bound
(BUILD/bench/explode_limit). They run one after the other, never side by
side. For each driver and input a calibration run picks REPEAT so that one
run takes about --seconds; then --runs runs are made and the median
throughput is taken. Each run reports its peak resident memory (the
driver's VmHWM), and the largest is kept.

The two 64 MiB inputs are measured once more with glibc told to keep freed
memory for reuse: on some virtual machines faulting in fresh pages costs
several nanoseconds a byte, more than the work itself, and every pass that
frees and allocates 64 MiB again pays it. Both tables are printed.

Beside throughput and peak memory the tables give each row's distance from
the goals, as a factor that meets its goal at 1.00 or more: both profiles
at 1.5x the best peer's throughput; peak memory at or below the lowest
peer's; the two 64 MiB rows within 3x of the memchr pass; the message
nested 50 levels within 1.5x of the speed of the same parts nested 5
levels. The last table holds what each driver found in one pass (bytes of
all leaves, leaves, Subjects, failures) and flags the counts on which the
drivers differ.

The tables go to stdout in Markdown and to INPUTS/../bench-results.md.
"""

import argparse
import datetime
import glob
import math
import os
import statistics
import subprocess
import sys

ROWS = [
    ("small", "340 small real-world messages", "small/*.eml"),
    ("attachment", "one message, 64 MiB Base64 attachment", "attachment.eml"),
    ("many_parts", "one multipart of 20,000 small parts", "many_parts.eml"),
    ("plain", "one plain message, 64 MiB text body", "plain.eml"),
    ("nested", "a message nested 50 levels", "nested.eml"),
    ("nested5", "the same parts nested 5 levels", "nested5.eml"),
]
LARGE = ("attachment", "plain")  # also run with a warm heap
PEERS = ("gmime", "mimetic", "libetpan")
OURS = ("smtpfm", "hardened")  # the two profiles
COUNTS = ("bytes_decoded", "leaves", "subjects", "failures")
# The goals, each as the factor the row must reach.
GOAL_PEER = 1.5  # throughput over the best peer's
GOAL_LIMIT = 3.0  # the 64 MiB rows: the memchr pass at most this much faster
GOAL_DEPTH = 1.5  # nested 5 levels at most this much faster than 50 levels
DEPTH_ROWS = ("nested", "nested5")  # the deep row and its shallow twin
# Freed blocks stay in the heap instead of going back to the kernel.
WARM_TUNABLES = "glibc.malloc.mmap_threshold=4294967296:glibc.malloc.trim_threshold=4294967296"
NAMES = {"smtpfm": "smtpfm", "hardened": "smtpfm hardened", "gmime": "GMime", "mimetic": "mimetic",
         "libetpan": "libetpan", "limit": "memchr"}


def measure(program, repeat, files, env=None):
    """One run: its figures, the peak resident set in KiB among them."""
    read_fd, write_fd = os.pipe()
    pid = os.fork()
    if pid == 0:
        os.close(read_fd)
        os.dup2(write_fd, 1)
        os.close(write_fd)
        try:
            if env is None:
                os.execv(program, [program, str(repeat)] + files)
            else:
                os.execve(program, [program, str(repeat)] + files, env)
        finally:
            os._exit(127)
    os.close(write_fd)
    chunks = []
    while True:
        chunk = os.read(read_fd, 65536)
        if not chunk:
            break
        chunks.append(chunk)
    os.close(read_fd)
    _, status = os.waitpid(pid, 0)
    code = os.waitstatus_to_exitcode(status)
    if code != 0:
        sys.exit("%s %d ... failed with exit code %d" % (program, repeat, code))
    fields = dict(item.split("=", 1) for item in b"".join(chunks).decode().split())
    figures = {"bytes_in": int(fields["bytes_in"]), "seconds": float(fields["seconds"]),
               "mb_per_s": float(fields["mb_per_s"]), "peak_kib": int(fields["peak_kib"])}
    figures.update((count, int(fields[count])) for count in COUNTS)
    return figures


def calibrate(program, files, seconds, env=None):
    """A REPEAT for which one run takes about `seconds`."""
    repeat = 1
    while True:
        figures = measure(program, repeat, files, env)
        if figures["seconds"] >= 0.2 or repeat >= 1 << 24:
            break
        repeat *= max(2, min(100, int(0.25 / max(figures["seconds"], 1e-6))))
    per_pass = figures["seconds"] / repeat
    return max(1, round(seconds / per_pass))


def fmt_rate(value):
    return "%.0f" % value if value >= 10 else "%.1f" % value


def fmt_goal(value):
    """A distance from a goal, met at 1.00 or more (bold); cut, not rounded,
    so that 0.999 does not read as met."""
    value = math.floor(value * 100) / 100
    return ("**%.2f**" if value >= 1.0 else "%.2f") % value


def git(*args):
    try:
        return subprocess.run(["git"] + list(args), capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return ""


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True)
    parser.add_argument("--peers", required=True)
    parser.add_argument("--inputs", required=True)
    parser.add_argument("--seconds", type=float, default=2.0)
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--no-warm", action="store_true", help="skip the large rows' run with a warm heap")
    parser.add_argument("--only", help="comma-separated row names to run (default: all)")
    args = parser.parse_args()

    drivers = {
        "smtpfm": os.path.join(args.build, "bench", "explode"),
        "hardened": os.path.join(args.build, "bench", "explode"),
        "gmime": os.path.join(args.peers, "explode_gmime"),
        "mimetic": os.path.join(args.peers, "explode_mimetic"),
        "libetpan": os.path.join(args.peers, "explode_libetpan"),
        "limit": os.path.join(args.build, "bench", "explode_limit"),
    }
    # The one driver run with an environment of its own.
    driver_env = {"hardened": {"SMTPFM_PROFILE": "hardened"}}
    for name, program in drivers.items():
        if not os.access(program, os.X_OK):
            sys.exit("run_bench: the %s driver %s is missing" % (name, program))
    rows = [row for row in ROWS if not args.only or row[0] in args.only.split(",")]

    def run_rows(selected, env=None):
        results = {}
        for key, _, pattern in selected:
            files = sorted(glob.glob(os.path.join(args.inputs, pattern)))
            if not files:
                sys.exit("run_bench: no input %s in %s (run gen_inputs.py)" % (pattern, args.inputs))
            for name, program in drivers.items():
                run_env = env
                if name in driver_env:
                    run_env = dict(env if env is not None else os.environ, **driver_env[name])
                repeat = calibrate(program, files, args.seconds, run_env)
                rates, rss, figures = [], [], None
                for _ in range(args.runs):
                    figures = measure(program, repeat, files, run_env)
                    rates.append(figures["mb_per_s"])
                    rss.append(figures["peak_kib"])
                results[key, name] = dict(
                    ((count, figures[count]) for count in COUNTS),
                    mb_per_s=statistics.median(rates),
                    spread=(min(rates), max(rates)),
                    repeat=repeat,
                    bytes_in=figures["bytes_in"],
                    rss_kib=max(rss),
                )
                print("  %-10s %-8s %sREPEAT=%-6d median %8.1f MB/s (%.1f..%.1f)  peak %d KiB" % (
                    key, name, "warm " if env else "", repeat, statistics.median(rates), min(rates), max(rates),
                    max(rss)), file=sys.stderr)
        return results

    def rate_table(selected, results):
        out = ["| input | MB in | smtpfm | hardened | GMime | mimetic | libetpan | memchr | best peer "
               "| smtpfm / best peer | hardened / best peer | smtpfm / memchr |",
               "|---|---:|---:|---:|---:|---:|---:|---:|---|---:|---:|---:|"]
        for key, label, _ in selected:
            r = {name: results[key, name] for name in drivers}
            best = max(PEERS, key=lambda p: r[p]["mb_per_s"])
            out.append("| %s | %.1f | %s | %.2fx | %.2fx | %.3f |" % (
                label, r["smtpfm"]["bytes_in"] / 1e6,
                " | ".join(fmt_rate(r[name]["mb_per_s"]) for name in drivers) + " | " + NAMES[best],
                r["smtpfm"]["mb_per_s"] / r[best]["mb_per_s"], r["hardened"]["mb_per_s"] / r[best]["mb_per_s"],
                r["smtpfm"]["mb_per_s"] / r["limit"]["mb_per_s"]))
        return out

    def goal_table(selected, results):
        """Each row's distance from its goals, per profile."""
        out = ["| input | 1.5x best peer: smtpfm | hardened | peak memory: smtpfm | hardened "
               "| own goal | smtpfm | hardened |",
               "|---|---:|---:|---:|---:|---|---:|---:|"]
        met = total = 0
        keys = [key for key, _, _ in selected]
        for key, label, _ in selected:
            r = {name: results[key, name] for name in drivers}
            best = max(r[p]["mb_per_s"] for p in PEERS)
            lowest = min(r[p]["rss_kib"] for p in PEERS)
            goals = [r[ours]["mb_per_s"] / best / GOAL_PEER for ours in OURS]
            goals += [lowest / r[ours]["rss_kib"] for ours in OURS]
            own = "-"
            if key in LARGE:
                own = "%gx of memchr" % GOAL_LIMIT
                goals += [r[ours]["mb_per_s"] * GOAL_LIMIT / r["limit"]["mb_per_s"] for ours in OURS]
            elif key == DEPTH_ROWS[0] and DEPTH_ROWS[1] in keys:
                own = "%gx of 5 levels" % GOAL_DEPTH
                shallow = {name: results[DEPTH_ROWS[1], name] for name in OURS}
                goals += [r[ours]["mb_per_s"] * GOAL_DEPTH / shallow[ours]["mb_per_s"] for ours in OURS]
            cells = [fmt_goal(g) for g in goals] + (["-", "-"] if len(goals) == 4 else [])
            out.append("| %s | %s | %s | %s | %s | %s | %s | %s |" % (label, *cells[:4], own, *cells[4:]))
            met += sum(1 for g in goals if g >= 1.0)
            total += len(goals)
        out.append("")
        out.append("Goals met: %d of %d." % (met, total))
        return out

    results = run_rows(rows)
    large = [row for row in rows if row[0] in LARGE]
    # The same large rows once more with freed memory kept by the allocator
    # for reuse, so that each pass does not fault in fresh pages (which on
    # some virtual machines costs more than the work measured).
    warm_env = dict(os.environ, GLIBC_TUNABLES=WARM_TUNABLES)
    warm = run_rows(large, warm_env) if large and not args.no_warm else {}

    lines = []
    head = git("log", "-1", "--format=%h %s")
    dirty = git("status", "--porcelain", "--untracked-files=no")
    lines.append("Measured %s on %d cores, at %s%s; median of %d runs of about %.0f s each." % (
        datetime.date.today().isoformat(), os.cpu_count() or 0, head or "(no git)",
        " with uncommitted changes in the work tree" if dirty else "", args.runs, args.seconds))
    lines.append("")
    lines.append("Throughput in MB (10^6 bytes) of input per second:")
    lines.append("")
    lines.extend(rate_table(rows, results))
    spread_key = max(results, key=lambda k: results[k]["spread"][1] / results[k]["spread"][0])
    low, high = results[spread_key]["spread"]
    lines.append("")
    lines.append("Largest spread between the runs of one cell: %.0f%% (%s, %s)." % (
        100 * (high / low - 1), NAMES[spread_key[1]], spread_key[0]))
    if warm:
        lines.append("")
        lines.append("The large inputs with freed memory kept for reuse (GLIBC_TUNABLES=%s):" % WARM_TUNABLES)
        lines.append("")
        lines.extend(rate_table(large, warm))
    if rows:
        lines.append("")
        lines.append("Peak resident memory in MiB (each driver holds the input it read):")
        lines.append("")
        lines.append("| input | MiB in | smtpfm | hardened | GMime | mimetic | libetpan | memchr | lowest peer |")
        lines.append("|---|---:|---:|---:|---:|---:|---:|---:|---|")
        for key, label, _ in rows:
            r = {name: results[key, name] for name in drivers}
            lowest = min(PEERS, key=lambda p: r[p]["rss_kib"])
            lines.append("| %s | %.1f | %s | %s |" % (
                label, r["smtpfm"]["bytes_in"] / 2**20,
                " | ".join(fmt_rate(r[name]["rss_kib"] / 1024) for name in drivers), NAMES[lowest]))
        lines.append("")
        lines.append("Distance from the goals, as a factor that meets its goal at 1.00 or more (in bold): "
                     "our throughput / (%g x the best peer's); the lowest peer's peak memory / ours; on the "
                     "64 MiB rows %g x our throughput / memchr's; on the 50 levels %g x their throughput / "
                     "the 5 levels'." % (GOAL_PEER, GOAL_LIMIT, GOAL_DEPTH))
        lines.append("")
        lines.extend(goal_table(rows, results))
        lines.append("")
        lines.append("What each driver found in one pass; \"differs\" flags the counts on which the drivers "
                     "do not agree (the README says why):")
        lines.append("")
        lines.append("| input | count | smtpfm | hardened | GMime | mimetic | libetpan | |")
        lines.append("|---|---|---:|---:|---:|---:|---:|---|")
        found = [name for name in drivers if name != "limit"]
        for key, label, _ in rows:
            for count in COUNTS:
                values = [results[key, name][count] for name in found]
                lines.append("| %s | %s | %s | %s |" % (
                    label, count, " | ".join(str(v) for v in values), "differs" if len(set(values)) > 1 else ""))

    text = "\n".join(lines) + "\n"
    print(text)
    with open(os.path.join(os.path.dirname(os.path.abspath(args.inputs)), "bench-results.md"), "w") as f:
        f.write(text)


if __name__ == "__main__":
    main()
