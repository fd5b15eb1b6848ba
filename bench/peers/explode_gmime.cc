// GMime's explode driver: `explode_gmime REPEAT FILE...` (see
// ../explode_driver.h).
//
// Each message is parsed from memory (a memory stream over the loaded
// bytes, not copied), then walked: every message's Subject (decoded from
// its encoded words by GMime), multiparts part by part, message/rfc822
// parts into their message, and every leaf's content written through its
// data wrapper, which undoes the transfer encoding, into a memory stream.
// A message the parser gives up on and a leaf whose content cannot be
// written out count as failures; a leaf with no content is an empty leaf.
#include <gmime/gmime.h>

#include "bench/explode_driver.h"

namespace {

void walk_message(GMimeMessage* message, explode_bench::Exploded& out);

void walk(GMimeObject* object, explode_bench::Exploded& out) {
  if (object == nullptr) return;
  if (GMIME_IS_MESSAGE_PART(object)) {
    walk_message(g_mime_message_part_get_message(GMIME_MESSAGE_PART(object)), out);
  } else if (GMIME_IS_MULTIPART(object)) {
    GMimeMultipart* multipart = GMIME_MULTIPART(object);
    int count = g_mime_multipart_get_count(multipart);
    for (int i = 0; i < count; ++i) walk(g_mime_multipart_get_part(multipart, i), out);
  } else if (GMIME_IS_PART(object)) {
    GMimeDataWrapper* content = g_mime_part_get_content(GMIME_PART(object));
    if (content == nullptr) {
      out.add(nullptr, 0);
      return;
    }
    GMimeStream* decoded = g_mime_stream_mem_new();
    if (g_mime_data_wrapper_write_to_stream(content, decoded) < 0) out.fail();
    GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(decoded));
    out.add(bytes->data, bytes->len);
    g_object_unref(decoded);
  }
}

void walk_message(GMimeMessage* message, explode_bench::Exploded& out) {
  if (message == nullptr) {
    out.fail();
    return;
  }
  const char* subject = g_mime_message_get_subject(message);
  if (subject != nullptr) out.subject(subject);
  walk(g_mime_message_get_mime_part(message), out);
}

}  // namespace

int main(int argc, char** argv) {
  g_mime_init();
  int code = explode_bench::run(argc, argv, [](std::string_view message, explode_bench::Exploded& out) {
    // The stream reads the loaded bytes in place: the array is not its to free.
    GByteArray* array = g_byte_array_new_take(
        reinterpret_cast<guint8*>(const_cast<char*>(message.data())), message.size());
    GMimeStream* stream = g_mime_stream_mem_new_with_byte_array(array);
    g_mime_stream_mem_set_owner(GMIME_STREAM_MEM(stream), FALSE);
    GMimeParser* parser = g_mime_parser_new_with_stream(stream);
    GMimeMessage* parsed = g_mime_parser_construct_message(parser, nullptr);
    walk_message(parsed, out);
    if (parsed != nullptr) g_object_unref(parsed);
    g_object_unref(parser);
    g_object_unref(stream);
    g_byte_array_free(array, FALSE);  // the bytes stay the driver's
  });
  g_mime_shutdown();
  return code;
}
