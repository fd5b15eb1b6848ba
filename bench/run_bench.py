#!/usr/bin/env python3
"""Runs the explode drivers on the five inputs and prints the comparison.

    run_bench.py --build BUILD --peers PEERS_BUILD --inputs INPUTS [--seconds 2] [--runs 3]

Drivers (each `NAME REPEAT FILE...`, printing `bytes_in=N bytes_decoded=N
seconds=S mb_per_s=X`): smtpfm (BUILD/bench/explode) in the reference
profile and, as "hardened", in the hardened profile, GMime and mimetic
(PEERS_BUILD/explode_gmime, explode_mimetic) and the memchr bound
(BUILD/bench/explode_limit). They run one after the other, never side by
side. For each driver and input a calibration run picks REPEAT so that one
run takes about --seconds; then --runs runs are made and the median
throughput is taken. The peak resident memory of each run is read from the
kernel's accounting of the finished child (wait4), and the largest is kept.

The two 64 MiB inputs are measured once more with glibc told to keep freed
memory for reuse: on some virtual machines faulting in fresh pages costs
several nanoseconds a byte, more than the work itself, and every pass that
frees and allocates 64 MiB again pays it. Both tables are printed.

The tables go to stdout in Markdown and to INPUTS/../bench-results.md.
"""

import argparse
import datetime
import glob
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
]
LARGE = ("attachment", "plain")  # also run with a warm heap
PEERS = ("gmime", "mimetic")
# Freed blocks stay in the heap instead of going back to the kernel.
WARM_TUNABLES = "glibc.malloc.mmap_threshold=4294967296:glibc.malloc.trim_threshold=4294967296"
NAMES = {"smtpfm": "smtpfm", "hardened": "smtpfm hardened", "gmime": "GMime", "mimetic": "mimetic",
         "limit": "memchr"}


def measure(program, repeat, files, env=None):
    """One run: (figures, peak resident set in KiB)."""
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
    _, status, usage = os.wait4(pid, 0)
    code = os.waitstatus_to_exitcode(status)
    if code != 0:
        sys.exit("%s %d ... failed with exit code %d" % (program, repeat, code))
    fields = dict(item.split("=", 1) for item in b"".join(chunks).decode().split())
    figures = {
        "bytes_in": int(fields["bytes_in"]),
        "bytes_decoded": int(fields["bytes_decoded"]),
        "seconds": float(fields["seconds"]),
        "mb_per_s": float(fields["mb_per_s"]),
    }
    return figures, usage.ru_maxrss  # KiB on Linux


def calibrate(program, files, seconds, env=None):
    """A REPEAT for which one run takes about `seconds`."""
    repeat = 1
    while True:
        figures, _ = measure(program, repeat, files, env)
        if figures["seconds"] >= 0.2 or repeat >= 1 << 24:
            break
        repeat *= max(2, min(100, int(0.25 / max(figures["seconds"], 1e-6))))
    per_pass = figures["seconds"] / repeat
    return max(1, round(seconds / per_pass))


def fmt_rate(value):
    return "%.0f" % value if value >= 10 else "%.1f" % value


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
                    figures, peak = measure(program, repeat, files, run_env)
                    rates.append(figures["mb_per_s"])
                    rss.append(peak)
                results[key, name] = {
                    "mb_per_s": statistics.median(rates),
                    "spread": (min(rates), max(rates)),
                    "repeat": repeat,
                    "bytes_in": figures["bytes_in"],
                    "bytes_decoded": figures["bytes_decoded"],
                    "rss_kib": max(rss),
                }
                print("  %-10s %-8s %sREPEAT=%-6d median %8.1f MB/s (%.1f..%.1f)  peak %d KiB" % (
                    key, name, "warm " if env else "", repeat, statistics.median(rates), min(rates), max(rates),
                    max(rss)), file=sys.stderr)
        return results

    def rate_table(selected, results):
        out = ["| input | MB in | smtpfm | hardened | hardened / smtpfm | GMime | mimetic | memchr | best peer "
               "| smtpfm / best peer | smtpfm / memchr |",
               "|---|---:|---:|---:|---:|---:|---:|---:|---|---:|---:|"]
        for key, label, _ in selected:
            r = {name: results[key, name] for name in drivers}
            best = max(PEERS, key=lambda p: r[p]["mb_per_s"])
            ours = r["smtpfm"]["mb_per_s"]
            hardened = r["hardened"]["mb_per_s"]
            out.append("| %s | %.1f | %s | %s | %.2f | %s | %s | %s | %s | %.2fx | %.3f |" % (
                label, r["smtpfm"]["bytes_in"] / 1e6, fmt_rate(ours), fmt_rate(hardened), hardened / ours,
                fmt_rate(r["gmime"]["mb_per_s"]),
                fmt_rate(r["mimetic"]["mb_per_s"]), fmt_rate(r["limit"]["mb_per_s"]), NAMES[best],
                ours / r[best]["mb_per_s"], ours / r["limit"]["mb_per_s"]))
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
        lines.append("| input | MiB in | smtpfm | hardened | GMime | mimetic | memchr |")
        lines.append("|---|---:|---:|---:|---:|---:|---:|")
        for key, label, _ in rows:
            r = {name: results[key, name] for name in drivers}
            lines.append("| %s | %.1f | %.0f | %.0f | %.0f | %.0f | %.0f |" % (
                label, r["smtpfm"]["bytes_in"] / 2**20,
                *(r[name]["rss_kib"] / 1024 for name in ("smtpfm", "hardened", "gmime", "mimetic", "limit"))))
    lines.append("")
    lines.append("Bytes of all leaves per pass (the same job done, where they agree):")
    lines.append("")
    lines.append("| input | smtpfm | hardened | GMime | mimetic |")
    lines.append("|---|---:|---:|---:|---:|")
    for key, label, _ in rows:
        lines.append("| %s | %d | %d | %d | %d |" % (
            label, *(results[key, name]["bytes_decoded"] for name in ("smtpfm", "hardened", "gmime", "mimetic"))))

    text = "\n".join(lines) + "\n"
    print(text)
    with open(os.path.join(os.path.dirname(os.path.abspath(args.inputs)), "bench-results.md"), "w") as f:
        f.write(text)


if __name__ == "__main__":
    main()
