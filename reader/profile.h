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

struct Smtp_profile {
  // The name that tools print: "reference" or "hardened".
  const char* name = "reference";
  // Set in the hardened profile only.
  bool hardened = false;

  // -- Recognition and the header ------------------------------------------


  // -- Multipart bodies and their delimiter lines ---------------------------


  // -- Types, transfer encodings and file names -----------------------------


  // -- Decoding, embedded blocks and RFC 1505 bodies ------------------------


  // -- Rewriting -------------------------------------------------------------

};

// The reading that the format manager has always given.
inline constexpr Smtp_profile smtp_reference_profile{};

// Every reading a common mail client takes, and never fewer items.
inline constexpr Smtp_profile smtp_hardened_profile = [] {
  Smtp_profile p;
  p.name = "hardened";
  p.hardened = true;

  // Recognition and the header.


  // Multipart bodies and their delimiter lines.


  // Types, transfer encodings and file names.


  // Decoding, embedded blocks and RFC 1505 bodies.


  // Rewriting.

  return p;
}();

#endif  // SMTPFM_READER_PROFILE_H_
