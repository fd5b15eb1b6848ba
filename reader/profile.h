// Smtp_profile: which reading of a message the plug-in hands the host.
//
// The reference profile reads mail exactly as this format manager always
// has: a header must look like one, a multipart must close, Base64 must be
// clean, and whatever fails those rules is left whole, undecoded, or not
// taken at all. On mail shaped by an attacker that hides from the host's
// policies what a mail client (Thunderbird, Outlook, Apple Mail, Gmail's
// web view) shows its reader. The hardened profile keeps every rule except
// where a rule would hide content or a file name that such a client shows.
//
// This is the one place that holds the difference. Each leniency is a named
// setting with its reason; the code that differs between the profiles asks
// its setting once. A host chooses the profile with the manager's
// configuration property "Hardened"; without it the reference profile
// holds, byte for byte and status for status.
//
// The profiles are constants with static storage: handlers keep a reference
// for as long as they live.
#ifndef SMTPFM_READER_PROFILE_H_
#define SMTPFM_READER_PROFILE_H_

#include "reader/header_reader.h"

struct Smtp_profile {
  // The name that tools print: "reference" or "hardened".
  const char* name = "reference";
  // Set in the hardened profile only.
  bool hardened = false;

  // -- Recognition and the header ------------------------------------------

  // How header lines are judged, in recognition and in every handler. The
  // hardened rules take bytes above 0x7F as text (RFC 6532: every
  // SMTPUTF8 message has them; the reference takes a line with more than
  // four for binary, so "Subject: Grüße aus München" made the message no
  // mail) and lines up to smtp_max_lenient_header_line (a long unfolded
  // "References:"; the reference stops at 1087 bytes), and they pass over
  // the "From " envelope line of an mbox in front of a header, which the
  // reference reads as junk that makes a short header no header; and a
  // uuencoded file that follows the header with no blank line, whose
  // "begin" line the reference takes into the last field, which then makes
  // the header no header. Every common client shows such a message. And
  // white space in front of a field's colon ("Content-Type : ...", RFC
  // 822's syntax, obsolete in RFC 5322, section 4.5) names an ordinary
  // field, as a reader of RFC 822 takes it and Thunderbird, which trims the
  // name in front of the colon, reads it; the reference keeps such a line
  // as "Bad-Header", so a Content-Type or a transfer encoding written so
  // is lost.
  Smtp_line_rules header_lines;
  // Raw 8-bit text in the Subject that is valid UTF-8 is published as
  // UTF-8 (RFC 6532), as every client shows it; the reference widens it
  // byte for byte, so "München" reaches the host as "MÃ¼nchen".
  bool raw_utf8_text = false;

  // -- Multipart bodies and their delimiter lines ---------------------------

  // The last part of a multipart whose data end before its closing
  // delimiter is a part like the others. Thunderbird, Apple Mail, Gmail and
  // Python's email package show it; the reference keeps it as text behind
  // the closing delimiter it writes, and never offers it to the host.
  bool last_part_without_delimiter = false;
  // Spaces and tabs at the end of a delimiter line (RFC 2046's transport
  // padding) are passed over, where the line does not match as it stands.
  // The reference drops trailing spaces only, and only for a boundary that
  // does not itself begin or end with one; a tab there hid the line, so
  // the part in front ran on over the next. Clients take such a line for
  // the delimiter it is.
  bool delimiter_padding = false;
  // Text of a multipart body that lies in no part (a preamble, an
  // epilogue, a body that no delimiter line cuts or that names no
  // boundary) reaches the host as a text item of its own where it holds
  // more than white space (an extra reading, never written back). A
  // client that cannot split a multipart falls back to showing its body as
  // text, and a preamble or an epilogue is text the sender wrote, which
  // RFC 2046 asks readers to ignore and a reader that keeps it shows; the
  // reference hands the host none of it.
  bool text_outside_parts = false;
  // Readers differ on the boundary of a multipart: the first or the last
  // of two "boundary" parameters, of two Content-Type fields, a value
  // read by the parser (comments dropped) or split at ';' as clients split
  // it (quotes, escapes and comments kept as written), its RFC 2231 forms
  // ("boundary*=", "boundary*0="), RFC 2047 words in it; and RFC 2046
  // (section 5.1.1) lets a delimiter line go on behind the boundary, which
  // makes a boundary that begins another a delimiter of both. Each reading
  // that cuts the body otherwise gives its parts as extra readings; where
  // the parser's boundary cuts nothing, the first other value that does is
  // the entity's own. The reference takes the parser's first boundary,
  // exactly.
  bool every_boundary_reading = false;
  // The parts of a multipart/signed entity behind the signed one (the
  // signature, and whatever else a sender put there) reach the host as
  // extra readings: a client shows the signature as an attachment where it
  // does not verify it, and any part beside it; the reference shows the
  // signed part alone.
  bool every_part_of_signed = false;
  // The body of an encrypted entity (multipart/encrypted, S/MIME
  // enveloped data, a PKCS #7 object of unknown kind) reaches the host as
  // it reaches it from any entity, its parts or its decoded bytes, as
  // extra readings that cannot be replaced. A client without the key
  // offers the enciphered part as an attachment (Gmail's web view shows
  // "smime.p7m" so), and a sender can label any content encrypted; the
  // reference gives the host nothing.
  bool encrypted_content_offered = false;

  // -- Types, transfer encodings and file names -----------------------------

  // The content of an entity is named the way mail clients name it: from
  // the "filename" of its Content-Disposition first, then the "name" of its
  // Content-Type, each read under RFC 2231 (charset, %XX escapes, sections
  // "filename*0*"...) and with RFC 2047 encoded words decoded, from every
  // such field and also split at ';' alone as clients split it (an unquoted
  // name with blanks or tspecials). ItemName is the first of these names,
  // and the others go out as "ItemAlternateName", "ItemAlternateName2"...
  // (an item holds one value per property name). Thunderbird, Apple
  // Mail, Outlook and Gmail show the disposition's file name, decoded; the
  // reference names an attachment by the raw "name" alone, so a policy on
  // names never sees "filename=evil.exe".
  bool file_names_as_clients_read_them = false;
  // A Content-Type that does not parse, also after repair, is read by a
  // split at ';': its type and subtype where the text in front of the
  // first ';' is "type/subtype", else application/octet-stream, and the
  // body is decoded by its transfer encoding all the same. Clients show
  // such a body (as a download where the type is lost); the reference
  // leaves the entity without any body.
  bool bad_content_type_read_leniently = false;
  // A Content-Disposition that does not parse loses only what it could
  // say: its type and parameters are read by a split at ';' and the entity
  // is opened as usual. Clients ignore a broken disposition; the reference
  // fails the whole entity, which then shows the host nothing.
  bool bad_disposition_read_leniently = false;
  // Only the types of S/MIME (application/pkcs7-mime, pkcs10, multipart
  // /encrypted...) make an entity encrypted, signed or a certificate; an
  // application/octet-stream named "*.p7m" is an ordinary attachment,
  // decoded and replaceable. Clients offer it as a file to save.
  bool secure_by_type_only = false;
  // message/global (RFC 6532, a message with UTF-8 headers) is a message
  // like message/rfc822: its sub-item is offered to the host as a message.
  // Thunderbird, Apple Mail and Gmail open it as one.
  bool message_global_is_message = false;
  // A Content-Transfer-Encoding that is not a single atom ("base64 encoded",
  // "\"base64\"", "base64;") counts by its first word, and a body in the
  // uuencode family ("x-uuencode", "uuencode", "x-uue") stays raw, with the
  // file name of its "begin" line among its names (where the block scanner
  // finds a frame), for the host's uuencode format manager to decode.
  // Thunderbird reads the first word and decodes uuencode under the begin
  // line's name; the reference drops a body whose encoding does not parse.
  bool transfer_encoding_by_first_word = false;
  // Of two Content-Transfer-Encoding fields the reference reads the last;
  // Thunderbird and Python's email package read the first. Where the first
  // decodes otherwise, the body read by it follows as an extra reading
  // (a record that is never written back).
  bool every_transfer_encoding_reading = false;

  // -- Decoding, embedded blocks and RFC 1505 bodies ------------------------

  // A Base64 body is decoded as RFC 2045 (section 6.8) asks and clients do:
  // characters outside the alphabet are passed over, lines of any length
  // are read, a "=" that cannot be padding is passed over, and data that
  // end inside a group keep their bytes. The fault is still logged (code
  // 33). Thunderbird, Outlook and Python's email package decode such a body
  // and offer the attachment; the reference drops the whole body, so a
  // stray character hides the attachment from the host.
  bool base64_as_clients_decode = false;
  // Text behind the padding that ends a Base64 body is decoded as further
  // Base64, each padding ending its group only, as an extra reading:
  // decoders differ on whether data end at the first "=" (Python's email
  // package stops there; decoders that join runs of Base64 go on), and the
  // reference leaves what follows the padding in no item at all.
  bool base64_past_padding = false;
  // The search for uuencoded blocks in a text body goes on behind a line
  // of more than 1024 bytes, which the reference takes for the end of any
  // text an encoder wrote; a block behind such a line stayed inside one
  // text item. Thunderbird and Outlook find the block all the same. (The
  // block goes to the host encoded, as every block does: decoding it is
  // the host's uuencode format manager's work.)
  bool blocks_past_long_lines = false;
  // A quoted-printable body whose data end inside an escape ("...=4" or a
  // last "=") is decoded with the unfinished escape as it stands; the fault
  // is logged. Clients show such a body; the reference drops it whole.
  bool quoted_printable_as_clients_decode = false;
  // A "=" with only blanks behind it on its line (or a bare LF) is a soft
  // line break: RFC 2045 (section 6.7, rule 3) says such blanks were added
  // in transit and go, and Python's email package strips them before it
  // looks for the "=". The reference keeps the "=", the blanks and the
  // line break in the data, which changes every byte behind them for the
  // host.
  bool quoted_printable_padded_breaks = false;
  // An RFC 1505 "Encoding" field that is empty or does not parse leaves
  // the whole body as one text part; the reference leaves the message with
  // no part at all (and an empty field is a fault of the caller there), so
  // the body never reached the host. Clients show the body as text.
  bool unreadable_encoding_body_whole = false;
};

// The reading that the format manager has always given.
inline constexpr Smtp_profile smtp_reference_profile{};

// Every reading a common mail client takes, and never fewer items.
inline constexpr Smtp_profile smtp_hardened_profile = [] {
  Smtp_profile p;
  p.name = "hardened";
  p.hardened = true;

  // Recognition and the header.
  p.header_lines = {.max_line = smtp_max_lenient_header_line,
                    .eight_bit_text = true,
                    .skip_envelope_line = true,
                    .begin_line_ends_header = true,
                    .obsolete_field_names = true};
  p.raw_utf8_text = true;

  // Multipart bodies and their delimiter lines.
  p.last_part_without_delimiter = true;
  p.delimiter_padding = true;
  p.text_outside_parts = true;
  p.every_boundary_reading = true;
  p.every_part_of_signed = true;
  p.encrypted_content_offered = true;

  // Types, transfer encodings and file names.
  p.file_names_as_clients_read_them = true;
  p.bad_content_type_read_leniently = true;
  p.bad_disposition_read_leniently = true;
  p.secure_by_type_only = true;
  p.message_global_is_message = true;
  p.transfer_encoding_by_first_word = true;
  p.every_transfer_encoding_reading = true;

  // Decoding, embedded blocks and RFC 1505 bodies.
  p.base64_as_clients_decode = true;
  p.base64_past_padding = true;
  p.blocks_past_long_lines = true;
  p.quoted_printable_as_clients_decode = true;
  p.quoted_printable_padded_breaks = true;
  p.unreadable_encoding_body_whole = true;
  return p;
}();

#endif  // SMTPFM_READER_PROFILE_H_
