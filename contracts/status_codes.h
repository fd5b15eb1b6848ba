// Status codes that travel in a Vek_status.
//
// The first group belongs to the base library (streams); the second is the
// plug-in's own. Every failure of data or of a stream is reported through
// one of these, never through an exception.
#ifndef SMTPFM_CONTRACTS_STATUS_CODES_H_
#define SMTPFM_CONTRACTS_STATUS_CODES_H_

#include <cstdint>

// Base library.
inline constexpr uint32_t vek_ok = 0;
inline constexpr uint32_t vek_bad_argument = 0xc2000002;   // a null buffer, a bad mode
inline constexpr uint32_t vek_bad_seek = 0xc2000005;       // a seek before the start
inline constexpr uint32_t vek_not_writable = 0xc2000006;   // an output on a read-only buffer
inline constexpr uint32_t vek_no_memory = 0xc2000007;
inline constexpr uint32_t vek_registry_failure = 0xc2000010;
inline constexpr uint32_t vek_end_of_stream = 0xc2000019;
inline constexpr uint32_t vek_line_too_long = 0xc200001c;

// The plug-in.
inline constexpr uint32_t smtp_bad_base64 = 0xc2010505;
inline constexpr uint32_t smtp_comment_not_closed = 0xc2010507;
inline constexpr uint32_t smtp_not_header_line = 0xc2010508;
inline constexpr uint32_t smtp_bad_content_type = 0xc2010509;
inline constexpr uint32_t smtp_bad_content_disposition = 0xc201050a;
inline constexpr uint32_t smtp_bad_transfer_encoding = 0xc201050b;
inline constexpr uint32_t smtp_bad_encoding_field = 0xc201050c;
inline constexpr uint32_t smtp_quoted_string_not_closed = 0xc201050d;
inline constexpr uint32_t smtp_no_opening_bracket = 0xc201050e;
inline constexpr uint32_t smtp_no_opening_parenthesis = 0xc201050f;
inline constexpr uint32_t smtp_no_opening_quote = 0xc2010510;
inline constexpr uint32_t smtp_domain_literal_not_closed = 0xc2010511;
inline constexpr uint32_t smtp_qp_end_in_escape = 0xc2010519;
inline constexpr uint32_t smtp_base64_encoder_end = 0xc201051a;
inline constexpr uint32_t smtp_content_type_not_single_word = 0xc201051c;
inline constexpr uint32_t smtp_multipart_without_boundary = 0xc2020402;

#endif  // SMTPFM_CONTRACTS_STATUS_CODES_H_
