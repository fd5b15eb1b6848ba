// Signed, encrypted and certificate entities (S/MIME, RFC 1847), told by
// type, by the "smime-type" parameter and, where the type says nothing, by
// the extension of the file name.
#include "mime/rfc1521_handler.h"

namespace {

enum class Smtp_secure_flag { encrypted, certificate, signed_data };

struct Smtp_secure_extension {
  const char16_t* extension;
  Smtp_secure_flag flag;
};

// The file name extensions of S/MIME objects, in the order they are tried.
constexpr Smtp_secure_extension smtp_secure_extensions[] = {
    {u"p7m", Smtp_secure_flag::encrypted},   {u"p7c", Smtp_secure_flag::certificate},
    {u"p7s", Smtp_secure_flag::signed_data}, {u"p10", Smtp_secure_flag::certificate},
    {u"aps", Smtp_secure_flag::signed_data},
};

}  // namespace

void Smtp_rfc1521_handler::classify_secure_entity(
    const std::vector<Smtp_header_field>& disposition_parameters, Vek_status& status) {
  status.clear();
  if (vek_string_equal_nc(mime_type_, "multipart")) {
    if (vek_string_equal_nc(mime_subtype_, "signed"))
      is_signed_ = true;
    else if (vek_string_equal_nc(mime_subtype_, "encrypted"))
      is_encrypted_ = true;
    return;
  }
  if (!vek_string_equal_nc(mime_type_, "application")) return;

  if (vek_string_equal_nc(mime_subtype_, "pkcs7-mime") ||
      vek_string_equal_nc(mime_subtype_, "x-pkcs7-mime")) {
    const Smtp_header_field* smime_type = find_parameter(parameters_, "smime-type");
    if (smime_type == nullptr) {
      // A PKCS #7 object of which nothing more is known counts as
      // encrypted, unless its name says otherwise.
      if (!classify_by_file_name(disposition_parameters)) is_encrypted_ = true;
    } else if (vek_string_equal_nc(smime_type->value, "signed-data")) {
      is_signed_ = true;
    } else if (vek_string_equal_nc(smime_type->value, "certs-only")) {
      is_certificate_ = true;
    } else {
      // "enveloped-data", and whatever else may be in there.
      is_encrypted_ = true;
    }
  } else if (vek_string_equal_nc(mime_subtype_, "pkcs10") || vek_string_equal_nc(mime_subtype_, "x-pkcs10")) {
    is_certificate_ = true;
  } else if (vek_string_equal_nc(mime_subtype_, "octet-stream") && !profile_.secure_by_type_only) {
    // Only the name can tell; an unknown one leaves an ordinary attachment.
    // Any sender can give a file such a name, and the hardened reading
    // does not let a name alone hide a body.
    classify_by_file_name(disposition_parameters);
  }
}

bool Smtp_rfc1521_handler::classify_by_file_name(
    const std::vector<Smtp_header_field>& disposition_parameters) {
  // The "name" of the type comes first: a "filename" counts only where
  // there is no "name" at all, even one that tells nothing.
  const Smtp_header_field* name = find_parameter(parameters_, "name");
  if (name == nullptr) name = find_parameter(disposition_parameters, "filename");
  if (name == nullptr || name->value.empty()) return false;
  const Vek_wstring extension = Vek_path(vek_stow(name->value)).extension();
  for (const Smtp_secure_extension& row : smtp_secure_extensions) {
    if (!vek_string_equal_nc(extension, row.extension)) continue;
    switch (row.flag) {
      case Smtp_secure_flag::encrypted:
        is_encrypted_ = true;
        break;
      case Smtp_secure_flag::certificate:
        is_certificate_ = true;
        break;
      case Smtp_secure_flag::signed_data:
        is_signed_ = true;
        break;
    }
    return true;
  }
  return false;
}
