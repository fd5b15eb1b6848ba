// mimetic's explode driver: `explode_mimetic REPEAT FILE...` (see
// ../explode_driver.h).
//
// Each message is loaded from memory into a MimeEntity (mimetic parses
// multiparts and message/rfc822 bodies into child entities), then walked:
// every entity's Subject decoded from its encoded words, every leaf's body
// decoded with mimetic's Base64 or quoted-printable decoder into a string.
// mimetic has no decoder of encoded words; the small one here finds the
// words and hands their text to the same two codecs. mimetic reports no
// errors: it takes whatever it reads, so it counts no failures.
#include <iterator>
#include <string>

#include <mimetic/mimetic.h>

#include "bench/explode_driver.h"

namespace {

// RFC 2047 words in a header value: the text of each word decoded (the
// charset is not converted), the text between words kept, blanks between
// two adjacent words dropped.
std::string decode_encoded_words(const std::string& value) {
  std::string out;
  size_t pos = 0;
  bool after_word = false;
  while (pos < value.size()) {
    size_t start = value.find("=?", pos);
    if (start == std::string::npos) {
      out.append(value, pos, std::string::npos);
      break;
    }
    size_t charset_end = value.find('?', start + 2);
    size_t text_start = charset_end == std::string::npos ? charset_end : charset_end + 3;
    size_t end = text_start == std::string::npos || text_start > value.size() ? std::string::npos
                                                                              : value.find("?=", text_start);
    if (end == std::string::npos || value[charset_end + 2] != '?') {
      out.append(value, pos, std::string::npos);
      break;
    }
    std::string between = value.substr(pos, start - pos);
    if (!(after_word && between.find_first_not_of(" \t\r\n") == std::string::npos)) out += between;
    char encoding = value[charset_end + 1];
    std::string text = value.substr(text_start, end - text_start);
    if (encoding == 'B' || encoding == 'b') {
      mimetic::Base64::Decoder decoder;
      mimetic::decode(text.begin(), text.end(), decoder, std::back_inserter(out));
    } else {
      for (char& c : text)
        if (c == '_') c = ' ';
      mimetic::QP::Decoder decoder;
      mimetic::decode(text.begin(), text.end(), decoder, std::back_inserter(out));
    }
    pos = end + 2;
    after_word = true;
  }
  return out;
}

void walk(const mimetic::MimeEntity& entity, explode_bench::Exploded& out) {
  const mimetic::Header& header = entity.header();
  if (header.hasField("Subject")) out.subject(decode_encoded_words(header.subject()));
  const mimetic::MimeEntityList& parts = entity.body().parts();
  if (!parts.empty() || header.contentType().isMultipart()) {
    for (const mimetic::MimeEntity* part : parts) walk(*part, out);
    return;
  }
  const mimetic::Body& body = entity.body();
  const std::string& mechanism = header.contentTransferEncoding().mechanism();
  std::string decoded;
  if (mimetic::istring(mechanism) == "base64") {
    mimetic::Base64::Decoder decoder;
    mimetic::decode(body.begin(), body.end(), decoder, std::back_inserter(decoded));
    out.add(decoded);
  } else if (mimetic::istring(mechanism) == "quoted-printable") {
    mimetic::QP::Decoder decoder;
    mimetic::decode(body.begin(), body.end(), decoder, std::back_inserter(decoded));
    out.add(decoded);
  } else {
    out.add(body);
  }
}

}  // namespace

int main(int argc, char** argv) {
  return explode_bench::run(argc, argv, [](std::string_view message, explode_bench::Exploded& out) {
    mimetic::MimeEntity entity;
    entity.load(message.data(), message.data() + message.size());
    walk(entity, out);
  });
}
