// The plug-in frame: what every library of the host family has around its
// workers. An element is a named, typed factory that the host finds by name
// and type; the application object receives the library's load, unload and
// registration events; the object count tells the host whether the library
// may be unloaded.
//
// All of it is module-wide state. The element list does not own the
// elements: each element is a static object that adds itself on
// construction and removes itself on destruction.
#ifndef SMTPFM_SHELL_PLG_FRAME_H_
#define SMTPFM_SHELL_PLG_FRAME_H_

#include <cstdint>
#include <list>
#include <map>

#include "contracts/tav.h"
#include "contracts/vek.h"

class Plg_object;

// Common to elements and to the objects that they create. The order of the
// virtual operations is part of the interface.
class Plg_versioned {
 public:
  virtual const Tav_guid& type() const = 0;
  virtual uint32_t interface_version() const = 0;
  virtual uint32_t implementation_version() const = 0;

 protected:
  ~Plg_versioned() = default;
};

class Plg_element : public Plg_versioned {
 public:
  // Copies the texts, the type and the versions and appends the element to
  // plg_element_list.
  Plg_element(Vek_wstring name, Vek_wstring display_name, Vek_wstring description, const Tav_guid& type_id,
              uint32_t interface_version, uint32_t implementation_version);
  Plg_element(const Plg_element&) = delete;
  Plg_element& operator=(const Plg_element&) = delete;

  const Tav_guid& type() const override { return type_id_; }
  uint32_t interface_version() const override { return interface_version_; }
  uint32_t implementation_version() const override { return implementation_version_; }
  // A new worker owned by the caller, who ends it with release(); null when
  // memory runs out.
  virtual Plg_object* create() = 0;
  virtual const Vek_wstring& name() const { return name_; }
  // The display name, or the name when the display name is empty.
  virtual const Vek_wstring& display_name() const { return display_name_.empty() ? name_ : display_name_; }
  virtual const Vek_wstring& description() const { return description_; }

 protected:
  // Removes every entry of the list that points to this element. Not
  // virtual: the slots above are the whole table a host calls through (the
  // create() of a host built to that table is the fourth), and elements are
  // static objects that nobody deletes through a pointer.
  ~Plg_element();

 private:
  Vek_wstring name_;
  Vek_wstring display_name_;
  Vek_wstring description_;
  Tav_guid type_id_;
  uint32_t interface_version_;
  uint32_t implementation_version_;
};

// Receives the library's events. The constructor stores `this` in
// plg_application.
class Plg_application {
 public:
  Plg_application();
  virtual bool load() { return true; }
  virtual void unload() {}
  virtual void on_register() {}
  virtual void on_deregister() {}

 protected:
  ~Plg_application();
};

// The list of the library's elements, in order of construction; created
// empty on first use, which is ahead of every element.
std::list<Plg_element*>& plg_element_list();

// Order rules: element name to order text, unique keys, exact comparison.
std::map<Vek_wstring, Vek_wstring>& plg_order_rules();
// One static rule object per rule; a second rule for the same name is
// dropped.
class Plg_order_rule {
 public:
  Plg_order_rule(const Vek_wstring& element_name, const Vek_wstring& order);
};

// Module-wide variables, set by the entry point.
inline constexpr uint32_t plg_max_path = 260;
extern void* plg_module_handle;
extern char16_t plg_module_path[plg_max_path];
extern Plg_application* plg_application;
extern uint32_t plg_object_count;
extern Vek_critical plg_object_lock;

// Counted under plg_object_lock by the constructor and destructor of
// Plg_object.
void plg_object_added();
void plg_object_removed();

// The behaviour of the exported functions, for the module's exports.
bool plg_entry(void* module, uint32_t reason, void* reserved);
Plg_element* plg_find_factory(const char16_t* name, const Tav_guid* type);
bool plg_register_all();
bool plg_deregister_all();

// The path below HKEY_LOCAL_MACHINE under which elements are registered.
extern const char16_t plg_registry_path[];
// The library's own version, written as "LibraryVersion".
inline constexpr uint32_t plg_library_version = 0x40000;
// The key text of an element: its name, a backslash and its type.
Vek_wstring plg_element_key(const Plg_element& element);

#endif  // SMTPFM_SHELL_PLG_FRAME_H_
