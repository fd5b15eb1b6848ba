#!/usr/bin/env python3
"""Checks `smtpfm disarm` with an independent reader: Python's email package.

For every message given (files, or folders walked), smtpfm disarms it. When
it exits 0, Python's email package must find no attachment left in what it
wrote: every part that a client would offer as a file (a file name, a
Content-Disposition of "attachment", or a type that is no text shown
inline) must hold the notice, and so must every uuencoded file in a text
part (decoded with binascii). When it exits 2, its JSON must name at least
one item that remains. Any other exit fails.

usage: disarm_check.py SMTPFM PATH...
"""
import binascii
import email
import email.policy
import json
import os
import re
import subprocess
import sys
import tempfile

NOTICE = "This attachment was removed by smtpfm."
INLINE_TEXT = {"text/plain", "text/html"}
# The signature of a signed entity is no content: clients verify it rather
# than offer it, and nothing may change inside a signed entity anyway.
SIGNATURES = {"application/pgp-signature", "application/pkcs7-signature", "application/x-pkcs7-signature"}
BEGIN = re.compile(rb"^begin [0-7]{3,4} (.+?)\s*$", re.M)


def uuencoded_files(text):
    """The (name, bytes) of each uuencoded block, as binascii decodes it."""
    files = []
    for match in BEGIN.finditer(text):
        data = b""
        for line in text[match.end():].splitlines()[1:]:
            if line.strip() == b"end" or not line.strip() or line.strip() == b"`":
                break
            try:
                data += binascii.a2b_uu(line)
            except binascii.Error:
                break
        files.append((match.group(1), data))
    return files


def is_notice(payload):
    return payload is not None and payload.strip() == NOTICE.encode()


def left_behind(message):
    """What Python's email package still finds that a client would offer."""
    found = []
    for part in message.walk():
        if part.is_multipart():
            continue
        payload = part.get_payload(decode=True)
        kind = part.get_content_type()
        if kind in SIGNATURES:
            continue
        # A multipart that Python cannot split stays one text to it.
        shown_inline = kind in INLINE_TEXT or part.get_content_maintype() == "multipart"
        offered = (part.get_filename() is not None or part.get_content_disposition() == "attachment"
                   or not shown_inline)
        if offered and not is_notice(payload):
            found.append(f"{part.get_content_type()} {part.get_filename()!r}")
        if part.get_content_maintype() == "text" and payload:
            for name, data in uuencoded_files(payload):
                if not is_notice(data):
                    found.append(f"uuencoded {name!r}")
    return found


def messages(paths):
    for path in paths:
        if os.path.isdir(path):
            for folder, _, names in sorted(os.walk(path)):
                for name in sorted(names):
                    if not name.endswith(".md"):
                        yield os.path.join(folder, name)
        else:
            yield path


def main():
    smtpfm, paths = sys.argv[1], sys.argv[2:]
    failures = 0
    checked = 0
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "out.eml")
        for path in messages(paths):
            if os.path.exists(out):
                os.remove(out)
            run = subprocess.run([smtpfm, "disarm", path, "-o", out, "--json"], capture_output=True)
            checked += 1
            if run.returncode == 0:
                with open(out, "rb") as f:
                    written = email.message_from_binary_file(f, policy=email.policy.compat32)
                found = left_behind(written)
                if found:
                    failures += 1
                    print(f"{path}: disarm said done, but Python finds: {'; '.join(found)}")
            elif run.returncode == 2:
                outcome = json.loads(run.stdout)
                if outcome["remaining"] < 1 or os.path.exists(out):
                    failures += 1
                    print(f"{path}: exit 2 without naming what remains, or with output written")
            else:
                failures += 1
                print(f"{path}: exit {run.returncode}: {run.stderr.decode(errors='replace').strip()}")
    print(f"{checked} messages, {failures} failures")
    return 1 if failures or checked == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
