// A MIME entity as the host rewrites it: where its header fields stand and
// where its body begins, read by the plug-in's own header reader so that
// the host draws the same line the handlers draw. All views are of the
// caller's bytes, which must outlive them.
#ifndef SMTPFM_HOST_ENTITY_H_
#define SMTPFM_HOST_ENTITY_H_

#include <string>
#include <string_view>
#include <vector>

// One field of a header block.
struct Entity_field {
  std::string_view name;  // as written; "Bad-Header" for text with no field shape, empty for an mbox "From " line
  std::string_view text;  // the field's raw lines with their line ends
};

struct Entity_header {
  std::vector<Entity_field> fields;
  size_t body = 0;  // where the body begins, behind the blank line
};

// Reads the header of `entity` under the line rules of the profile.
Entity_header read_entity_header(std::string_view entity, bool hardened);

// The unfolded value of the first field named `name` (any case), or empty.
std::string field_value(const Entity_header& header, std::string_view name);

// Whether any Content-Disposition of the header says "attachment".
bool disposition_is_attachment(const Entity_header& header);
// The file name the entity gives its content, as UTF-8: the "filename" of
// its first Content-Disposition, else the "name" of its first
// Content-Type (RFC 2231 and encoded words read); empty when it has none.
std::string entity_file_name(const Entity_header& header);

// `entity` with its content replaced by that of `replacement` (a whole
// entity: its header fields and body): the fields of `entity` that do not
// describe the content stay in their order, the Content-* fields of the
// replacement stand where its first Content-* field stood, and the body is
// the replacement's. A message (`is_message`) without MIME-Version gets one.
std::string replace_content(std::string_view entity, std::string_view replacement, bool is_message,
                            bool hardened);

#endif  // SMTPFM_HOST_ENTITY_H_
