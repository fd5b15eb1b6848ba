// Properties, property lists and type identifiers as the plug-in sees them
// (tav.dll on Windows, platform/tav here).
//
// A property list owns its properties; pointers into it stay valid until
// the list is changed.
#ifndef SMTPFM_CONTRACTS_TAV_H_
#define SMTPFM_CONTRACTS_TAV_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/vek.h"

// A 16-byte type identifier, laid out as a Windows GUID.
struct Tav_guid {
  uint32_t data1;
  uint16_t data2;
  uint16_t data3;
  uint8_t data4[8];
};

// A named value: a string, a bool or a signed 32-bit integer.
class Tav_property {
 public:
  enum Type : uint32_t { type_string = 0, type_integer = 1, type_bool = 2 };

  Tav_property(std::u16string_view name, int32_t value);
  Tav_property(std::u16string_view name, bool value);
  Tav_property(std::u16string_view name, Vek_wstring value);

  // The name as it was first given: one copy per name and process.
  const Vek_wstring& name() const { return *name_; }
  // 0 for a string, 1 for an integer, 2 for a bool.
  uint32_t type() const { return type_; }
  // The value of a string property; empty for the other types.
  const Vek_wstring& string_value() const { return string_; }
  // The value of a bool property; for an integer, whether it is not 0.
  bool bool_value() const { return type_ == type_bool ? integer_ != 0 : type_ == type_integer && integer_ != 0; }
  // The value of an integer or bool property; 0 for a string.
  int32_t integer_value() const { return type_ == type_string ? 0 : integer_; }
  void set_string(Vek_wstring value);

 private:
  // Names are few (the host's and the plug-in's vocabulary) and every
  // item carries a handful: each property points at the one interned copy
  // of its name instead of owning one, which is never freed.
  const Vek_wstring* name_;
  uint32_t type_;
  int32_t integer_ = 0;
  Vek_wstring string_;
};

// An ordered list of properties, in order of insertion.
class Tav_property_list {
 public:
  // The properties themselves, not pointers to them: an item has about
  // ten, and a walk makes an item for every part.
  using Items = std::vector<Tav_property>;
  // The first property of that name (compared without regard to case), or
  // null.
  Tav_property* find(std::u16string_view name) const;
  // Appends a string property.
  void add(std::u16string_view name, Vek_wstring value);
  // Appends a copy of `property`.
  void add(const Tav_property& property);
  // Replaces the value of the property of that name, or appends it.
  void set(const Tav_property& property);
  // The same for a string property, without making one first.
  void set(std::u16string_view name, std::u16string_view value);
  size_t size() const { return items_.size(); }
  Items::const_iterator begin() const { return items_.begin(); }
  Items::const_iterator end() const { return items_.end(); }

 private:
  void make_room();

  Items items_;
};

// The text form {D00BCC02-7BB8-11D1-A93B-00A0C9430865}, upper case.
void tav_type_to_string(const Tav_guid& type, Vek_wstring& text);
bool tav_is_equal_type(const Tav_guid& a, const Tav_guid& b);

#endif  // SMTPFM_CONTRACTS_TAV_H_
