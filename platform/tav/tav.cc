// Properties and type identifiers (stand-in of the host's property library).
#include <atomic>
#include <cstdio>
#include <cstring>

#include <functional>
#include <mutex>
#include <unordered_set>

#include "contracts/tav.h"

namespace {

// The interned property names, shared by every thread: a set of strings,
// whose elements never move, looked up by a view without a copy.
struct Name_hash {
  using is_transparent = void;
  size_t operator()(std::u16string_view name) const { return std::hash<std::u16string_view>()(name); }
};
struct Name_equal {
  using is_transparent = void;
  bool operator()(std::u16string_view a, std::u16string_view b) const { return a == b; }
};

const Vek_wstring* intern_shared(std::u16string_view name) {
  static std::mutex lock;
  static auto* names = new std::unordered_set<Vek_wstring, Name_hash, Name_equal>();
  const std::lock_guard<std::mutex> guard(lock);
  auto at = names->find(name);
  if (at == names->end()) at = names->emplace(name).first;
  return &*at;
}

// Names mostly come from a few constants, each at its own address: a small
// cache by the address of the text finds them again without the lock and
// the hash. A hit is checked by content, since another text may come to
// stand at that address. The slots are shared by every thread: each holds a
// pointer to an interned name, which never changes and is never freed, so
// a slot read while another thread writes it gives one name or the other,
// and either is checked.
const Vek_wstring* intern(std::u16string_view name) {
  constexpr size_t slots = 64;
  static std::atomic<const Vek_wstring*> cache[slots] = {};
  const size_t slot = (reinterpret_cast<uintptr_t>(name.data()) >> 3) % slots;
  const Vek_wstring* cached = cache[slot].load(std::memory_order_acquire);
  if (cached != nullptr && cached->size() == name.size() &&
      (name.empty() || std::memcmp(cached->data(), name.data(), name.size() * sizeof(char16_t)) == 0))
    return cached;
  cached = intern_shared(name);
  cache[slot].store(cached, std::memory_order_release);
  return cached;
}

}  // namespace

Tav_property::Tav_property(std::u16string_view name, int32_t value)
    : name_(intern(name)), type_(type_integer), integer_(value) {}

Tav_property::Tav_property(std::u16string_view name, bool value)
    : name_(intern(name)), type_(type_bool), integer_(value ? 1 : 0) {}

Tav_property::Tav_property(std::u16string_view name, Vek_wstring value)
    : name_(intern(name)), type_(type_string), string_(std::move(value)) {}

void Tav_property::set_string(Vek_wstring value) {
  type_ = type_string;
  integer_ = 0;
  string_ = std::move(value);
}

Tav_property* Tav_property_list::find(std::u16string_view name) const {
  for (const auto& property : items_) {
    const Vek_wstring& own = property.name();
    // An interned name asked for by itself matches at once.
    if (own.data() == name.data() && own.size() == name.size()) return const_cast<Tav_property*>(&property);
    // Names differ mostly in their first letter; the call compares the rest.
    if (own.size() == name.size() && (name.empty() || (own[0] | 0x20) == (name[0] | 0x20)) &&
        vek_string_equal_nc(own, name))
      return const_cast<Tav_property*>(&property);
  }
  return nullptr;
}

// Room for the properties most items get at first: a part and its body get
// from four to six (types, the item type, a charset or a name), few get
// more, and a walk over a million parts holds a million lists. Room for
// four would be moved once on half the items of a multipart; room for six
// takes no more memory than that move leaves behind.
constexpr size_t first_room = 6;

void Tav_property_list::make_room() {
  if (items_.capacity() == 0) items_.reserve(first_room);
}

void Tav_property_list::add(std::u16string_view name, Vek_wstring value) {
  make_room();
  items_.emplace_back(name, std::move(value));
}

void Tav_property_list::add(const Tav_property& property) {
  make_room();
  items_.push_back(property);
}

void Tav_property_list::set(const Tav_property& property) {
  if (Tav_property* old = find(property.name())) {
    *old = property;
    return;
  }
  add(property);
}

void Tav_property_list::set(std::u16string_view name, std::u16string_view value) {
  if (Tav_property* old = find(name)) {
    old->set_string(Vek_wstring(value));
    return;
  }
  add(name, Vek_wstring(value));
}

void tav_type_to_string(const Tav_guid& type, Vek_wstring& text) {
  char narrow[40];
  std::snprintf(narrow, sizeof narrow, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", type.data1, type.data2,
                type.data3, type.data4[0], type.data4[1], type.data4[2], type.data4[3], type.data4[4], type.data4[5],
                type.data4[6], type.data4[7]);
  text = vek_stow(narrow);
}

bool tav_is_equal_type(const Tav_guid& a, const Tav_guid& b) {
  if (a.data1 != b.data1 || a.data2 != b.data2 || a.data3 != b.data3) return false;
  for (int i = 0; i < 8; ++i)
    if (a.data4[i] != b.data4[i]) return false;
  return true;
}
