// The worker side of the plug-in frame: the counted object that an element
// creates, the configurable node, and the base of every format manager.
//
// A format manager is created by an element, configured by the host
// through a property list, and asked to open items; for an item that it
// recognises it returns a handler (handler_base.h) that answers for that
// item's sub-items. The host owns the manager and ends it with release(),
// after every handler it opened.
#ifndef SMTPFM_MANAGER_MANAGER_BASE_H_
#define SMTPFM_MANAGER_MANAGER_BASE_H_

#include <cstdint>

#include "contracts/fmg_item.h"
#include "contracts/tav.h"
#include "contracts/vek.h"
#include "contracts/zor.h"
#include "shell/plg_frame.h"

class Fmg_handler_base;

// An object that an element created. Each one counts in plg_object_count
// from construction to destruction.
class Plg_object : public Plg_versioned {
 public:
  explicit Plg_object(Plg_element* element);
  const Tav_guid& type() const override { return element_->type(); }
  uint32_t interface_version() const override { return element_->interface_version(); }
  uint32_t implementation_version() const override { return element_->implementation_version(); }
  virtual Plg_element* element() const { return element_; }
  // Destroys the object.
  virtual void release();

 protected:
  virtual ~Plg_object();

 private:
  Plg_element* element_;
};

// Takes a whole property list in one call: begin_properties, then
// set_property for each property in order while the status stays good, then
// end_properties if it is still good.
class Rmx_configurable {
 public:
  virtual void set_properties(const Tav_property_list& list, Vek_status& status);
  virtual ~Rmx_configurable() = default;
  virtual void begin_properties(Vek_status& status) { status.clear(); }
  virtual void set_property(const Tav_property& property, Vek_status& status);
  virtual void end_properties(Vek_status& status) { status.clear(); }
};

// A node with a name and a link upwards; no reference count, no children.
class Rmx {
 public:
  // Throws runtime_error when there is no parent.
  virtual Rmx* parent() const;
  virtual void set_parent(Rmx* node) { parent_ = node; }
  // The topmost node above this one, or this one; never throws.
  virtual Rmx* root();
  virtual const Vek_wstring& name() const { return name_; }
  virtual void set_name(const Vek_wstring& name) { name_ = name; }
  // Empties `children`; nodes of this kind have none.
  virtual void list_children(uint32_t selector, Vek_ptrvec_impl& children);
  virtual Rmx* find_child(uint32_t a, uint32_t b) const;
  virtual ~Rmx() = default;

 private:
  Rmx* parent_ = nullptr;
  Vek_wstring name_;
};

class Fmg_manager_base : public Plg_object, public Rmx_configurable, public Rmx {
 public:
  explicit Fmg_manager_base(Plg_element* element) : Plg_object(element) {}
  virtual void notify(uint32_t a, uint32_t b, Vek_status& status);
  // True for an empty text; else whether the policy names it.
  virtual bool accept(const Vek_wstring& text) const;
  // A new handler owned by the caller, or null when the item is not taken
  // (with a good status: no message; with a failed one: unreadable).
  // `buffer` must outlive the handler.
  virtual Fmg_handler_base* open(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) = 0;
  // Takes ZOR_POLICY_LIST; other names are ignored.
  void set_property(const Tav_property& property, Vek_status& status) override;

 protected:
  ~Fmg_manager_base() override = default;

 private:
  Zor_condition policy_;
};

#endif  // SMTPFM_MANAGER_MANAGER_BASE_H_
