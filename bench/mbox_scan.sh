#!/bin/sh
# Scans a generated mbox of mixed messages with two workers and reports the
# scan's peak memory beside the size of the largest message in it: the
# reader hands whole messages to a queue of bounded length, so the peak
# must follow the largest message, not the mailbox.
#
#   bench/mbox_scan.sh BUILD [GIB]
#
# The mailbox (GIB GiB, default 2) is made from the explode inputs in
# BUILD/bench-inputs (made first if missing) and the samples: the small
# messages, the multipart of 20,000 parts, the nested message and, once in
# every 256 MiB, the 64 MiB attachment. It goes to BUILD/bench-inputs and
# is removed afterwards.
set -eu
build=$1
gib=${2:-2}
top=$(cd "$(dirname "$0")/.." && pwd)
inputs="$build/bench-inputs"
[ -f "$inputs/stamp" ] || python3 "$top/bench/gen_inputs.py" "$inputs"
mbox="$inputs/mixed.mbox"

python3 - "$inputs" "$top/samples" "$mbox" "$gib" <<'EOF'
import glob, os, sys
inputs, samples, out_path, gib = sys.argv[1], sys.argv[2], sys.argv[3], float(sys.argv[4])
small = sorted(glob.glob(os.path.join(inputs, "small", "*.eml"))) + sorted(glob.glob(os.path.join(samples, "*.eml")))
def read(path):
    with open(path, "rb") as f:
        return f.read()
def quoted(message):
    # mboxrd: a body line that starts with "From " (after any ">") gets one
    # more ">", so that it cannot be taken for an envelope.
    lines = message.split(b"\n")
    return b"\n".join(b">" + l if l.lstrip(b">").startswith(b"From ") else l for l in lines)
small_msgs = [quoted(read(p)) for p in small]
many = quoted(read(os.path.join(inputs, "many_parts.eml")))
nested = quoted(read(os.path.join(inputs, "nested.eml")))
attachment = quoted(read(os.path.join(inputs, "attachment.eml")))
target = int(gib * (1 << 30))
written, count, largest, next_big = 0, 0, 0, 0
with open(out_path, "wb") as out:
    i = 0
    while written < target:
        if written >= next_big:
            message = attachment
            next_big += 256 << 20
        elif i % 500 == 499:
            message = many
        elif i % 50 == 49:
            message = nested
        else:
            message = small_msgs[i % len(small_msgs)]
        i += 1
        envelope = b"From sender@example.com Mon Nov 23 12:00:00 2026\r\n"
        out.write(envelope)
        out.write(message)
        if not message.endswith(b"\n"):
            out.write(b"\r\n")
        out.write(b"\r\n")
        written += len(envelope) + len(message) + 4
        count += 1
        largest = max(largest, len(message))
print(f"mbox: {written / (1 << 30):.2f} GiB, {count} messages, largest {largest / (1 << 20):.1f} MiB")
EOF

report=$(mktemp)
/usr/bin/time -v "$build/bin/smtpfm" scan -j 2 "$mbox" >"$report.out" 2>"$report"
tail -3 "$report.out"
peak_kib=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$report")
seconds=$(sed -n 's/.*Elapsed (wall clock) time (h:mm:ss or m:ss): //p' "$report")
echo "peak resident memory: $((peak_kib / 1024)) MiB; wall clock $seconds"
rm -f "$report" "$report.out" "$mbox"
