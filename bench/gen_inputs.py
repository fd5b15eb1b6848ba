#!/usr/bin/env python3
"""Writes the inputs of the explode benchmark into a folder.

    gen_inputs.py OUT_DIR [--corpus DIR]

Every input is deterministic (fixed seeds) and in canonical form (CR LF):

  small/       340 small real-world messages: the corpus's messages, then
               variants of them (a Received field and a Message-ID of their
               own, the Subject numbered) until there are 340
  attachment.eml   one message with a 64 MiB Base64 attachment
  many_parts.eml   one multipart of 20,000 small parts: 7bit, quoted-printable
                   and Base64 in turn
  plain.eml        one plain message with a 64 MiB text body
  nested.eml       a message nested 50 levels: each level a multipart whose
                   last part is message/rfc822 holding the next level
  nested5.eml      the same 51 messages and 101 leaves nested 5 levels: the
                   top forwards ten chains of five messages

A stamp file records the generator's version; when it matches, nothing is
written again.
"""

import argparse
import base64
import os
import random
import re
import sys
import zlib

VERSION = "2"
MIB = 1 << 20

WORDS = (
    "the quick brown fox jumps over lazy dog mail message part header body "
    "attachment boundary encoding charset report meeting agenda minutes budget "
    "quarter review draft final version please find attached regards thanks "
    "schedule project status update team office invoice order delivery address "
    "customer support request ticket reply forward archive folder server client"
).split()


def crlf(data: bytes) -> bytes:
    """Bare LF and bare CR become CR LF; CR LF stays."""
    return re.sub(rb"\r\n|\r|\n", b"\r\n", data)


def write(path: str, data: bytes) -> None:
    tmp = path + ".tmp"
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, path)


def text_line(rng: random.Random, width: int = 72) -> bytes:
    words = []
    length = 0
    while length < width - 12:
        w = rng.choice(WORDS)
        words.append(w)
        length += len(w) + 1
    return " ".join(words).encode("ascii")


def b64_lines(data: bytes) -> bytes:
    return base64.encodebytes(data).replace(b"\n", b"\r\n")


def qp_encode(text: str) -> bytes:
    """Quoted-printable of UTF-8 text with soft line breaks, lines <= 76."""
    out = []
    for line in text.split("\n"):
        encoded = ""
        for ch in line:
            for b in ch.encode("utf-8"):
                c = chr(b)
                if b == 0x3D or b > 0x7E or (b < 0x20 and c != "\t"):
                    encoded += "=%02X" % b
                else:
                    encoded += c
        # soft line breaks, never inside an escape
        pieces = []
        while len(encoded) > 75:
            cut = 75
            while encoded[cut - 1] == "=" or encoded[cut - 2] == "=":
                cut -= 1
            pieces.append(encoded[:cut] + "=")
            encoded = encoded[cut:]
        pieces.append(encoded)
        out.extend(pieces)
    return "\r\n".join(out).encode("ascii")


def encoded_subject(text: str, q: bool) -> str:
    raw = text.encode("utf-8")
    if q:
        body = "".join(
            "_" if b == 0x20 else (chr(b) if 0x21 <= b <= 0x7E and chr(b) not in "=?_" else "=%02X" % b) for b in raw
        )
        return "=?UTF-8?Q?%s?=" % body
    return "=?UTF-8?B?%s?=" % base64.b64encode(raw).decode("ascii")


def headers(subject: str, extra: str = "") -> bytes:
    return (
        "From: =?UTF-8?Q?J=C3=B6rg_Bench?= <bench@example.org>\r\n"
        "To: reader@example.net\r\n"
        "Date: Mon, 2 Mar 2026 09:00:00 +0000\r\n"
        "Message-ID: <bench-%d@example.org>\r\n"
        "Subject: %s\r\n"
        "MIME-Version: 1.0\r\n%s" % (zlib.crc32(subject.encode("utf-8")), subject, extra)
    ).encode("ascii")


# (1) small real-world messages

def corpus_files(corpus: str):
    files = []
    for root, _, names in os.walk(corpus):
        for name in names:
            if name.endswith((".txt", ".msg", ".eml")) and name != "README.md":
                files.append(os.path.join(root, name))
    return sorted(files)


def make_small(out_dir: str, corpus: str, count: int = 340) -> None:
    rng = random.Random(1)
    sources = [crlf(open(f, "rb").read()) for f in corpus_files(corpus)]
    if not sources:
        sys.exit("gen_inputs: no messages in %s" % corpus)
    small = os.path.join(out_dir, "small")
    os.makedirs(small, exist_ok=True)
    for i in range(count):
        data = sources[i % len(sources)]
        if i >= len(sources):
            copy = i // len(sources)
            received = (
                "Received: from relay%d.example.net ([192.0.2.%d]) by mx.example.org\r\n"
                "\twith ESMTP id %08X; Mon, 2 Mar 2026 09:%02d:%02d +0000\r\n"
                % (copy, rng.randrange(1, 255), rng.getrandbits(32), rng.randrange(60), rng.randrange(60))
            ).encode("ascii")
            data = received + data
            data = re.sub(
                rb"(?im)^(message-id:[ \t]*<)", b"\\g<1>copy%d." % copy, data, count=1
            )
            data = re.sub(rb"(?im)^(subject:[ \t]*)", b"\\g<1>[%d] " % copy, data, count=1)
        write(os.path.join(small, "msg_%03d.eml" % i), data)


# (2) one message with a 64 MiB Base64 attachment

def make_attachment(path: str) -> None:
    rng = random.Random(2)
    payload = rng.randbytes(64 * MIB)
    boundary = "=_bench_attachment_0001"
    parts = [
        headers(encoded_subject("Quartalsbericht für März", False),
                'Content-Type: multipart/mixed; boundary="%s"\r\n' % boundary),
        b"\r\nThis is a multi-part message in MIME format.\r\n",
        b"--" + boundary.encode() + b"\r\n",
        b"Content-Type: text/plain; charset=us-ascii\r\nContent-Transfer-Encoding: 7bit\r\n\r\n",
        b"\r\n".join(text_line(rng) for _ in range(8)) + b"\r\n",
        b"--" + boundary.encode() + b"\r\n",
        b'Content-Type: application/octet-stream; name="archive.bin"\r\n'
        b"Content-Transfer-Encoding: base64\r\n"
        b'Content-Disposition: attachment; filename="archive.bin"\r\n\r\n',
        b64_lines(payload),
        b"--" + boundary.encode() + b"--\r\n",
    ]
    write(path, b"".join(parts))


# (3) one multipart of 20,000 small parts

def make_many_parts(path: str, count: int = 20000) -> None:
    rng = random.Random(3)
    boundary = b"=_bench_many_parts_0003"
    out = [
        headers(encoded_subject("Sammelsendung: 20 000 Teile", True),
                'Content-Type: multipart/mixed; boundary="%s"\r\n' % boundary.decode()),
        b"\r\nPreamble of the many-parts message.\r\n",
    ]
    accented = ["café", "naïve", "Grüße", "façade", "smørrebrød", "€100", "x=y"]
    for i in range(count):
        out.append(b"--" + boundary + b"\r\n")
        kind = i % 3
        if kind == 0:
            lines = [text_line(rng) for _ in range(rng.randrange(2, 10))]
            out.append(b"Content-Type: text/plain; charset=us-ascii\r\nContent-Transfer-Encoding: 7bit\r\n\r\n")
            out.append(b"\r\n".join(lines) + b"\r\n")
        elif kind == 1:
            lines = []
            for _ in range(rng.randrange(2, 10)):
                words = [rng.choice(WORDS) for _ in range(rng.randrange(8, 30))]
                words[rng.randrange(len(words))] = rng.choice(accented)
                lines.append(" ".join(words))
            out.append(
                b"Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
            )
            out.append(qp_encode("\n".join(lines)) + b"\r\n")
        else:
            data = rng.randbytes(rng.randrange(100, 1500))
            out.append(
                b'Content-Type: application/octet-stream; name="part%05d.bin"\r\n'
                b"Content-Transfer-Encoding: base64\r\n"
                b'Content-Disposition: attachment; filename="part%05d.bin"\r\n\r\n' % (i, i)
            )
            out.append(b64_lines(data))
    out.append(b"--" + boundary + b"--\r\n")
    write(path, b"".join(out))


# (4) one plain message with a 64 MiB text body

def make_plain(path: str) -> None:
    rng = random.Random(4)
    pool = [text_line(rng, rng.randrange(40, 78)) + b"\r\n" for _ in range(4096)]
    body = []
    size = 0
    while size < 64 * MIB:
        line = pool[rng.getrandbits(12)]
        body.append(line)
        size += len(line)
    head = headers(encoded_subject("Protokoll der Sitzung – vollständig", False),
                   "Content-Type: text/plain; charset=us-ascii\r\nContent-Transfer-Encoding: 7bit\r\n")
    write(path, head + b"\r\n" + b"".join(body))


# (5) a message nested 50 levels, and the same parts nested 5 levels

# A message's shape: None for the innermost plain message, else the list of
# the shapes of the messages it forwards.
def chain(levels: int, end):
    """`levels` messages, each forwarding the next, the last forwarding `end`."""
    shape = end
    for _ in range(levels):
        shape = [shape]
    return shape


def nested_message(rng: random.Random, shape, number: int = 1) -> bytes:
    """The message of `shape`, its forwarded messages built first.

    Each message but the innermost plain one is a multipart: a text part,
    a Base64 part of 300 bytes, then one message/rfc822 part per message
    it forwards. Messages are numbered in order, the top 1, and the number
    names the level's Subject and boundary."""
    if shape is None:
        return (
            headers(encoded_subject("Innerste Nachricht", True),
                    "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n")
            + b"\r\n" + qp_encode("Die innerste Nachricht: Grüße aus der Tiefe.\n" + text_line(rng).decode())
            + b"\r\n"
        )
    forwarded = []
    next_number = number + 1
    for child in shape:
        forwarded.append(nested_message(rng, child, next_number))
        next_number += count_messages(child)
    boundary = b"=_bench_level_%02d" % number
    out = [
        headers(encoded_subject("Ebene %d – weitergeleitet" % number, number % 2 == 0),
                'Content-Type: multipart/mixed; boundary="%s"\r\n' % boundary.decode()),
        b"\r\n--" + boundary + b"\r\n",
        b"Content-Type: text/plain; charset=us-ascii\r\nContent-Transfer-Encoding: 7bit\r\n\r\n",
        b"Level %d forwards the message below.\r\n" % number,
        text_line(rng) + b"\r\n",
        b"--" + boundary + b"\r\n",
        b'Content-Type: application/octet-stream; name="level%02d.bin"\r\n' % number,
        b"Content-Transfer-Encoding: base64\r\n\r\n",
        b64_lines(rng.randbytes(300)),
    ]
    for message in forwarded:
        out += [b"--" + boundary + b"\r\n", b"Content-Type: message/rfc822\r\n\r\n", message]
    out.append(b"--" + boundary + b"--\r\n")
    return b"".join(out)


def count_messages(shape) -> int:
    return 1 if shape is None else 1 + sum(count_messages(child) for child in shape)


def make_nested(path: str, levels: int = 50) -> None:
    """A chain: each level forwards the next, the 51st is plain."""
    write(path, nested_message(random.Random(5), chain(levels, None)))


def make_nested_5(path: str) -> None:
    """The same 51 messages and 101 leaves nested 5 levels: the top
    forwards ten chains of five messages; one chain ends in the plain
    message, the other nine in a multipart that forwards nothing."""
    shape = [chain(4, None) if i == 0 else chain(4, []) for i in range(10)]
    write(path, nested_message(random.Random(6), shape))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("out_dir")
    here = os.path.dirname(os.path.abspath(__file__))
    parser.add_argument("--corpus", default=os.path.join(here, "..", "..", "shared", "corpus"))
    args = parser.parse_args()

    os.makedirs(args.out_dir, exist_ok=True)
    stamp = os.path.join(args.out_dir, "stamp")
    if os.path.exists(stamp) and open(stamp).read().strip() == VERSION:
        return
    make_small(args.out_dir, args.corpus)
    make_attachment(os.path.join(args.out_dir, "attachment.eml"))
    make_many_parts(os.path.join(args.out_dir, "many_parts.eml"))
    make_plain(os.path.join(args.out_dir, "plain.eml"))
    make_nested(os.path.join(args.out_dir, "nested.eml"))
    make_nested_5(os.path.join(args.out_dir, "nested5.eml"))
    write(stamp, (VERSION + "\n").encode())


if __name__ == "__main__":
    main()
