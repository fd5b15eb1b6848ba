// libetpan's explode driver: `explode_libetpan REPEAT FILE...` (see
// ../explode_driver.h).
//
// Each message is parsed from memory by mailmime_parse, which reads the
// loaded bytes in place and builds the MIME tree: multiparts with their
// parts, message/rfc822 parts with their header fields and body. Then the
// tree is walked: every message's Subject decoded from its encoded words
// into UTF-8, every leaf's body decoded from its transfer encoding
// (mailmime_part_parse). A 7bit, 8bit or binary body needs no decoding:
// its leaf is the view into the input that libetpan gives, as the library's
// own users read it, so on a plain body nothing but the sum of its bytes is
// done. A message the parser gives up on and a body whose decoding fails
// count as failures.
#include <cstdlib>
#include <cstring>

#include <libetpan/libetpan.h>

#include "bench/explode_driver.h"

namespace {

// A header value's encoded words decoded to UTF-8; text outside them is
// taken as Latin-1, as libetpan's own readers do.
void decode_subject(const char* value, explode_bench::Exploded& out) {
  size_t index = 0;
  char* decoded = nullptr;
  if (mailmime_encoded_phrase_parse("iso-8859-1", value, std::strlen(value), &index, "utf-8", &decoded) !=
      MAILIMF_NO_ERROR) {
    out.fail();
    return;
  }
  out.subject(decoded);
  std::free(decoded);
}

void subjects(const mailimf_fields* fields, explode_bench::Exploded& out) {
  if (fields == nullptr) return;
  for (clistiter* it = clist_begin(fields->fld_list); it != nullptr; it = clist_next(it)) {
    const auto* field = static_cast<const mailimf_field*>(clist_content(it));
    if (field->fld_type == MAILIMF_FIELD_SUBJECT && field->fld_data.fld_subject != nullptr)
      decode_subject(field->fld_data.fld_subject->sbj_value, out);
  }
}

void leaf(const mailmime_data* body, explode_bench::Exploded& out) {
  if (body == nullptr || body->dt_type != MAILMIME_DATA_TEXT) {
    out.add(nullptr, 0);
    return;
  }
  const char* data = body->dt_data.dt_text.dt_data;
  const size_t length = body->dt_data.dt_text.dt_length;
  const int encoding = body->dt_encoded ? body->dt_encoding : MAILMIME_MECHANISM_8BIT;
  if (encoding != MAILMIME_MECHANISM_BASE64 && encoding != MAILMIME_MECHANISM_QUOTED_PRINTABLE) {
    out.add(data, length);
    return;
  }
  size_t index = 0;
  char* decoded = nullptr;
  size_t decoded_length = 0;
  if (mailmime_part_parse(data, length, &index, encoding, &decoded, &decoded_length) != MAILIMF_NO_ERROR) {
    out.fail();
    out.add(nullptr, 0);
    return;
  }
  out.add(decoded, decoded_length);
  mmap_string_unref(decoded);
}

// The walk goes as deep as the tree that libetpan's parser built (by
// recursion too); the inputs are the benchmark's own.
void walk(const mailmime* mime, explode_bench::Exploded& out) {
  if (mime == nullptr) return;
  switch (mime->mm_type) {
    case MAILMIME_SINGLE:
      leaf(mime->mm_data.mm_single, out);
      break;
    case MAILMIME_MULTIPLE:
      for (clistiter* it = clist_begin(mime->mm_data.mm_multipart.mm_mp_list); it != nullptr;
           it = clist_next(it))
        walk(static_cast<const mailmime*>(clist_content(it)), out);
      break;
    case MAILMIME_MESSAGE:
      subjects(mime->mm_data.mm_message.mm_fields, out);
      walk(mime->mm_data.mm_message.mm_msg_mime, out);
      break;
  }
}

}  // namespace

int main(int argc, char** argv) {
  return explode_bench::run(argc, argv, [](std::string_view message, explode_bench::Exploded& out) {
    size_t index = 0;
    mailmime* mime = nullptr;
    if (mailmime_parse(message.data(), message.size(), &index, &mime) != MAILIMF_NO_ERROR) {
      out.fail();
      return;
    }
    walk(mime, out);
    mailmime_free(mime);
  });
}
