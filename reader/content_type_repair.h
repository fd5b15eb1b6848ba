// Mending of structured values that real mail gets wrong: the Content-Type
// (a fixed list of text edits, one per kind of damage seen in the wild)
// and the Encoding field of RFC 1505. Pure text functions: they change the
// caller's string in place and keep nothing.
#ifndef SMTPFM_READER_CONTENT_TYPE_REPAIR_H_
#define SMTPFM_READER_CONTENT_TYPE_REPAIR_H_

#include <string>

// Repairs a Content-Type value in place; true when it changed. When false,
// `value` is exactly as it was, surrounding white space included.
bool repair_content_type(std::string& value);

// Drops every RFC 822 special but ',', '(' and ')' from an Encoding value,
// outside its comments; true when a byte was dropped.
bool clean_encoding_field(std::string& value);

#endif  // SMTPFM_READER_CONTENT_TYPE_REPAIR_H_
