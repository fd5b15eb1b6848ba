#!/usr/bin/env python3
"""Writes a corpus of mails that hide one known attachment from a reader.

    make_corpus.py OUT_DIR

Every mail carries the same attachment, a small zip archive named
"eicar.zip" (harmless: it holds one line of text), behind one or more of
the tricks that mail shaped by an attacker uses: damaged headers, odd
boundary parameters and delimiter lines, transfer encodings spelled or
filled so that a strict reader drops the body, file names in forms that a
strict reader does not decode, types that make a reader skip the content,
and text in a preamble or epilogue. Each is a reading that some common mail
client (Thunderbird, Outlook, Apple Mail, Gmail's web view) takes, so a
client shows the attachment.

OUT_DIR gets one file per mail, NNN-family-trick.eml, in canonical form
(CR LF), the attachment as payload.bin, and manifest.tsv with one line per
mail: file, family, trick and the file name that must reach the host. What
every mail expects is the same: the payload's bytes as a decoded item, and
that name on it as ItemName or an ItemAlternateName. The output depends on
nothing but this script.
"""

import base64
import binascii
import io
import os
import sys
import zipfile

NAME = "eicar.zip"
BOUNDARY = "=_part_7f3a"


def make_payload() -> bytes:
    """A stored zip archive with fixed dates: the same bytes every time."""
    out = io.BytesIO()
    with zipfile.ZipFile(out, "w", zipfile.ZIP_STORED) as archive:
        info = zipfile.ZipInfo("readme.txt", date_time=(2024, 1, 1, 0, 0, 0))
        info.external_attr = 0o644 << 16
        archive.writestr(info, "Nothing to see here: a test file of the smtpfm evasion corpus.\n")
    return out.getvalue()


PAYLOAD = make_payload()


def b64_lines(data: bytes, width: int = 76) -> list:
    text = base64.b64encode(data).decode()
    return [text[i:i + width] for i in range(0, len(text), width)]


def qp_lines(data: bytes) -> list:
    text = binascii.b2a_qp(data, quotetabs=True, istext=False).decode()
    return text.split("\n")


def uu_lines(data: bytes, name: str) -> list:
    lines = ["begin 644 " + name]
    for i in range(0, len(data), 45):
        lines.append(binascii.b2a_uu(data[i:i + 45]).decode().rstrip("\n"))
    lines += ["`", "end"]
    return lines


HEAD = [
    "From: Sender <sender@example.org>",
    "To: Recipient <rcpt@example.org>",
    "Subject: Invoice 2024-001",
    "Date: Mon, 01 Jan 2024 09:00:00 +0000",
    "Message-ID: <evasion@example.org>",
    "MIME-Version: 1.0",
]
TEXT_PART = ["Content-Type: text/plain; charset=us-ascii", "", "Please find the invoice attached."]


def attachment(headers=None, body=None) -> list:
    """The attachment part: its header lines and Base64 body by default."""
    if headers is None:
        headers = [
            'Content-Type: application/zip; name="%s"' % NAME,
            'Content-Disposition: attachment; filename="%s"' % NAME,
            "Content-Transfer-Encoding: base64",
        ]
    return headers + [""] + (b64_lines(PAYLOAD) if body is None else body)


def mixed(parts=None, content_type=None, boundary=BOUNDARY, delimiter=None, closing=None, preamble=None,
          epilogue=None, head=None, top=None) -> list:
    """A multipart/mixed message as lines: the text part, then the parts."""
    if parts is None:
        parts = [attachment()]
    if content_type is None:
        content_type = 'Content-Type: multipart/mixed; boundary="%s"' % boundary
    delimiter = "--" + boundary if delimiter is None else delimiter
    closing = "--" + boundary + "--" if closing is None else closing
    lines = (top or []) + (HEAD if head is None else head) + [content_type, ""]
    lines += preamble if preamble is not None else ["This is a multi-part message in MIME format."]
    for part in [TEXT_PART] + parts:
        lines += [delimiter] + part
    if closing is not False:
        lines.append(closing)
    lines += epilogue or []
    return lines


def single(headers, body) -> list:
    """A message whose whole body is the attachment."""
    return HEAD + headers + [""] + body


def plain(body) -> list:
    """A message with no MIME at all."""
    return [line for line in HEAD if not line.startswith("MIME-Version")] + [""] + body


CORPUS = []


def add(family: str, trick: str, lines: list, name: str = NAME) -> None:
    CORPUS.append((family, trick, "\r\n".join(lines) + "\r\n", name))


def build() -> None:
    a_ct = 'Content-Type: application/zip; name="%s"' % NAME
    a_cd = 'Content-Disposition: attachment; filename="%s"' % NAME
    a_b64 = "Content-Transfer-Encoding: base64"
    body = b64_lines(PAYLOAD)
    one_line = ["".join(body)]

    add("control", "plain attachment", mixed())

    # Header bytes and line lengths, mbox lines.
    add("header", "UTF-8 subject", mixed(head=[l if not l.startswith("Subject") else
                                               "Subject: Grüße aus München, Rechnung für März"
                                               for l in HEAD]))
    add("header", "long References line",
        mixed(head=HEAD + ["References: " + " ".join("<id%d@example.org>" % i for i in range(120))]))
    add("header", "long line in the part header",
        mixed(parts=[attachment(headers=["X-Tracking: " + "x" * 1500, a_ct, a_cd, a_b64])]))
    add("header", "mbox envelope line", mixed(top=["From sender@example.org Mon Jan  1 09:00:00 2024"]))
    add("header", "uuencoded file right behind the header",
        [line for line in HEAD if not line.startswith("MIME-Version")] + uu_lines(PAYLOAD, NAME))

    # Obsolete syntax: white space in front of the colon.
    add("obsolete syntax", "Content-Type : of the message",
        mixed(content_type='Content-Type : multipart/mixed; boundary="%s"' % BOUNDARY))
    add("obsolete syntax", "Content-Transfer-Encoding : of the part",
        mixed(parts=[attachment(headers=[a_ct, a_cd, "Content-Transfer-Encoding\t: base64"])]))
    add("obsolete syntax", "Content-Disposition : of the part",
        mixed(parts=[attachment(headers=["Content-Type: application/octet-stream",
                                         'Content-Disposition : attachment; filename="%s"' % NAME, a_b64])]))

    # Boundary parameters.
    def boundary_trick(trick, parameter, used=BOUNDARY):
        add("boundary parameter", trick,
            mixed(content_type="Content-Type: multipart/mixed; " + parameter, boundary=used))

    boundary_trick("unquoted", "boundary=%s" % BOUNDARY)
    boundary_trick("quoted pair resolved", 'boundary="a\\b\\c"', "abc")
    boundary_trick("quoted pair kept", 'boundary="a\\b\\c"', "a\\b\\c")
    boundary_trick("comment behind", "boundary=%s (the boundary)" % BOUNDARY)
    boundary_trick("comment read with the value", "boundary=%s (x)" % BOUNDARY, BOUNDARY + " (x)")
    boundary_trick("RFC 2231 extended", "boundary*=us-ascii''%s" % BOUNDARY.replace("=", "%3D"))
    boundary_trick("RFC 2231 sections", 'boundary*0="%s"; boundary*1="%s"' % (BOUNDARY[:4], BOUNDARY[4:]))
    boundary_trick("RFC 2231 sections beside a decoy", 'boundary="decoy"; boundary*0="%s"; boundary*1="%s"'
                   % (BOUNDARY[:4], BOUNDARY[4:]))
    boundary_trick("RFC 2047 word decoded", 'boundary="=?us-ascii?Q?abc?="', "abc")
    boundary_trick("RFC 2047 word as written", 'boundary="=?us-ascii?Q?abc?="', "=?us-ascii?Q?abc?=")
    boundary_trick("white space around", 'boundary = "%s" ' % BOUNDARY)
    boundary_trick("white space inside the quotes", 'boundary=" %s "' % BOUNDARY)
    boundary_trick("two parameters, the first used", 'boundary="%s"; boundary="decoy"' % BOUNDARY)
    boundary_trick("two parameters, the last used", 'boundary="decoy"; boundary="%s"' % BOUNDARY)
    add("boundary parameter", "two Content-Type fields, the first used",
        mixed(content_type='Content-Type: multipart/mixed; boundary="%s"\r\nContent-Type: text/plain' % BOUNDARY))
    add("boundary parameter", "inner boundary begins with the outer one",
        mixed(parts=[["Content-Type: multipart/mixed; boundary=\"%sX\"" % BOUNDARY, ""] +
                     ["--%sX" % BOUNDARY] + attachment() + ["--%sX--" % BOUNDARY]]))
    add("boundary parameter", "outer boundary begins with the inner one",
        mixed(boundary=BOUNDARY + "X",
              parts=[["Content-Type: multipart/mixed; boundary=\"%s\"" % BOUNDARY, ""] +
                     ["--%s" % BOUNDARY] + attachment() + ["--%s--" % BOUNDARY]]))

    # Delimiter lines.
    add("delimiter lines", "tab behind the delimiters", mixed(delimiter="--%s\t" % BOUNDARY))
    add("delimiter lines", "spaces behind the delimiters", mixed(delimiter="--%s   " % BOUNDARY))
    add("delimiter lines", "no closing delimiter", mixed(closing=False))
    add("delimiter lines", "closing delimiter with three dashes", mixed(closing="--%s---" % BOUNDARY))
    add("delimiter lines", "closing dashes behind blanks", mixed(closing="--%s -- " % BOUNDARY))
    add("delimiter lines", "text behind a delimiter", mixed(delimiter="--%s text" % BOUNDARY))
    add("delimiter lines", "a part that runs into the outer boundary",
        mixed(parts=[["Content-Type: multipart/mixed; boundary=\"inner\"", "", "--inner"] + attachment()]))

    # Transfer encodings.
    def encoding_trick(trick, cte, lines=None):
        add("transfer encoding", trick, mixed(parts=[attachment(headers=[a_ct, a_cd] + cte, body=lines)]))

    encoding_trick("upper case", ["Content-Transfer-Encoding: BASE64"])
    encoding_trick("white space", ["Content-Transfer-Encoding:   base64   "])
    encoding_trick("comment", ["Content-Transfer-Encoding: base64 (binary data)"])
    encoding_trick("quoted", ['Content-Transfer-Encoding: "base64"'])
    encoding_trick("two words", ["Content-Transfer-Encoding: base64 encoded"])
    encoding_trick("stray characters in Base64", [a_b64], [l[:20] + "!*" + l[20:] for l in body])
    encoding_trick("one Base64 line of any length", [a_b64], one_line)
    encoding_trick("missing padding", [a_b64], [one_line[0].rstrip("=")])
    encoding_trick("mailing-list footer", [a_b64], body + ["", "--", "Sent through the list example-list"])
    decoy = base64.b64encode(b"decoy").decode()
    encoding_trick("payload behind a padded decoy", [a_b64], [decoy] + body)
    encoding_trick("quoted-printable", ["Content-Transfer-Encoding: quoted-printable"], qp_lines(PAYLOAD))
    encoding_trick("quoted-printable in lower case", ["Content-Transfer-Encoding: quoted-printable"],
                   [l.replace("=0A", "=0a").replace("=0D", "=0d") for l in qp_lines(PAYLOAD)])
    encoding_trick("quoted-printable soft breaks with blanks",
                   ["Content-Transfer-Encoding: quoted-printable"],
                   [l[:-1] + "= \t" if l.endswith("=") else l for l in qp_lines(PAYLOAD)])
    encoding_trick("two fields, the first used", [a_b64, "Content-Transfer-Encoding: 7bit"])
    encoding_trick("two fields, the last used", ["Content-Transfer-Encoding: 7bit", a_b64])
    encoding_trick("x-uuencode", ["Content-Transfer-Encoding: x-uuencode"], uu_lines(PAYLOAD, NAME))
    encoding_trick("uuencode", ["Content-Transfer-Encoding: uuencode"], uu_lines(PAYLOAD, NAME))
    add("transfer encoding", "uuencoded in a text part",
        mixed(parts=[["Content-Type: text/plain", "", "see below", ""] + uu_lines(PAYLOAD, NAME)]))
    add("transfer encoding", "uuencoded in a plain message",
        plain(["Please find the invoice below.", ""] + uu_lines(PAYLOAD, NAME)))

    # File names.
    def name_trick(trick, headers, name=NAME):
        add("file name", trick, mixed(parts=[attachment(headers=headers + [a_b64])]), name)

    octet = "Content-Type: application/octet-stream"
    name_trick("filename alone", [octet, a_cd])
    name_trick("name alone", [a_ct])
    name_trick("RFC 2231 with charset", [octet, "Content-Disposition: attachment; filename*=utf-8''eic%61r.zip"])
    name_trick("RFC 2231 sections with charset",
               [octet, "Content-Disposition: attachment; filename*0*=utf-8''eic; filename*1*=ar.zip"])
    name_trick("RFC 2231 sections without charset",
               [octet, 'Content-Disposition: attachment; filename*0="eic"; filename*1="ar.zip"'])
    name_trick("RFC 2047 word", [octet, 'Content-Disposition: attachment; filename="=?utf-8?B?ZWljYXIuemlw?="'])
    name_trick("unquoted with spaces", [octet, "Content-Disposition: attachment; filename=my eicar.zip"],
               "my eicar.zip")
    name_trick("two filenames, the last real", [octet, 'Content-Disposition: attachment; filename="invoice.pdf";'
                                                       ' filename="%s"' % NAME])
    name_trick("name and filename differ", ['Content-Type: application/pdf; name="invoice.pdf"', a_cd])

    # Types.
    add("types", "message/global", single(["Content-Type: message/global"],
                                          mixed(head=HEAD[:5] + ["MIME-Version: 1.0"])))
    add("types", "Content-Type that does not parse",
        mixed(parts=[attachment(headers=['Content-Type: application/zip; name="%s"; (' % NAME, a_cd, a_b64])]))
    add("types", "Content-Type with no slash",
        mixed(parts=[attachment(headers=["Content-Type: application zip", a_cd, a_b64])]))
    add("types", "Content-Disposition that does not parse",
        mixed(parts=[attachment(headers=[a_ct, 'Content-Disposition: attachment; filename="%s"; size=(' % NAME,
                                         a_b64])]))
    add("types", "octet-stream named like S/MIME",
        mixed(parts=[attachment(headers=['Content-Type: application/octet-stream; name="%s.p7m"' % NAME,
                                         a_b64])]), NAME + ".p7m")
    add("types", "labelled S/MIME", mixed(parts=[attachment(headers=['Content-Type: application/pkcs7-mime; '
                                                                     'name="%s"' % NAME, a_b64])]))
    add("types", "inside multipart/encrypted",
        single(['Content-Type: multipart/encrypted; boundary="enc"; protocol="application/pgp-encrypted"'],
               ["--enc", "Content-Type: application/pgp-encrypted", "", "Version: 1", "--enc"] + attachment() +
               ["--enc--"]))
    add("types", "behind the signed part of multipart/signed",
        single(['Content-Type: multipart/signed; boundary="sig"; protocol="application/pgp-signature"'],
               ["--sig"] + TEXT_PART + ["--sig"] + attachment() + ["--sig--"]))

    # Preamble and epilogue.
    add("preamble and epilogue", "uuencoded in the preamble", mixed(preamble=uu_lines(PAYLOAD, NAME)))
    add("preamble and epilogue", "uuencoded in the epilogue",
        mixed(parts=[], epilogue=uu_lines(PAYLOAD, NAME)))
    add("preamble and epilogue", "no delimiter at all",
        mixed(parts=[], delimiter="--other", closing="--other--", preamble=uu_lines(PAYLOAD, NAME)))

    # Tricks put together.
    add("combined", "RFC 2231 boundary, tab padding, no closing delimiter, stray Base64, RFC 2231 name",
        mixed(content_type="Content-Type: multipart/mixed; boundary*0=\"%s\"; boundary*1=\"%s\""
              % (BOUNDARY[:4], BOUNDARY[4:]), delimiter="--%s\t" % BOUNDARY, closing=False,
              parts=[attachment(headers=[octet, "Content-Disposition: attachment; filename*=utf-8''eicar.zip",
                                         a_b64], body=[l + "#" for l in body])]))
    add("combined", "obsolete colon, two transfer encodings, RFC 2047 name",
        mixed(content_type='Content-Type : multipart/mixed; boundary="%s"' % BOUNDARY,
              parts=[attachment(headers=['Content-Type: application/octet-stream; name="=?utf-8?Q?eicar.zip?="',
                                         a_b64, "Content-Transfer-Encoding: 7bit"])]))
    add("combined", "mbox line, UTF-8 subject, message/global, unclosed part",
        ["From sender@example.org Mon Jan  1 09:00:00 2024"] +
        single(["Content-Type: message/global"],
               mixed(head=HEAD[:2] + ["Subject: Grüße", "MIME-Version: 1.0"], closing=False)))
    add("combined", "signed, text behind the delimiter, padded decoy",
        single(['Content-Type: multipart/signed; boundary="sig"'],
               ["--sig"] + TEXT_PART + ["--sig junk"] + attachment(body=[decoy] + body) + ["--sig--"]))
    add("combined", "quoted boundary with escapes, closing with three dashes, name in a broken type",
        mixed(content_type='Content-Type: multipart/mixed; boundary="a\\b\\c"', boundary="abc",
              closing="--abc---",
              parts=[attachment(headers=['Content-Type: application/zip; name="%s"; (' % NAME, a_b64])]))
    add("combined", "two Content-Type fields, prefix delimiters, uuencode in the epilogue",
        mixed(content_type='Content-Type: multipart/mixed; boundary="%s"\r\nContent-Type: text/plain' % BOUNDARY,
              delimiter="--%s;" % BOUNDARY, parts=[], epilogue=uu_lines(PAYLOAD, NAME)))


def main() -> int:
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    out = sys.argv[1]
    os.makedirs(out, exist_ok=True)
    build()
    manifest = []
    for number, (family, trick, text, name) in enumerate(CORPUS, 1):
        slug = "".join(c if c.isalnum() else "-" for c in (family + "-" + trick).lower())
        slug = "-".join(part for part in slug.split("-") if part)[:60]
        file = "%03d-%s.eml" % (number, slug)
        with open(os.path.join(out, file), "wb") as f:
            f.write(text.encode("utf-8"))
        manifest.append("\t".join([file, family, trick, name]))
    with open(os.path.join(out, "payload.bin"), "wb") as f:
        f.write(PAYLOAD)
    with open(os.path.join(out, "manifest.tsv"), "w", encoding="utf-8") as f:
        f.write("\n".join(manifest) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
