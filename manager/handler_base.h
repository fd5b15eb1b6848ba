// Fmg_handler_base: the handler of one open item, and its default answers.
//
// A format manager's open() returns a handler for an item it took. The host
// walks the sub-items through it (has_items, get_item until the position
// comes back as smtp_no_position), may replace some (set_item), and asks
// for the item written anew (is_modified, rebuild). The handler never owns
// `data`: the host keeps that buffer live and unchanged while the handler
// lives. A buffer that get_item returns stays the handler's; one given to
// set_item becomes the handler's; one that rebuild returns is the caller's.
#ifndef SMTPFM_MANAGER_HANDLER_BASE_H_
#define SMTPFM_MANAGER_HANDLER_BASE_H_

#include <cstdint>
#include <memory>

#include "contracts/fmg_item.h"
#include "contracts/vek.h"

// A position that stands for no item: get_item gives it after the last.
inline constexpr uint32_t smtp_no_position = 0xFFFFFFFF;

class Fmg_handler_base {
 public:
  virtual Vek_buffer* get_data(Fmg_item& item, Vek_status& status);
  virtual void set_data(Vek_buffer* buffer, Fmg_item& item, Vek_status& status);
  virtual bool has_items(Fmg_item& item, Vek_status& status);
  // Fills `item` with the properties of the sub-item at `position`, moves
  // `position` on and returns the sub-item's buffer.
  virtual Vek_buffer* get_item(uint32_t& position, Fmg_item& item, Vek_status& status);
  // Replaces the sub-item at `position`; the handler takes over `buffer`.
  virtual void set_item(uint32_t position, Vek_buffer* buffer, Fmg_item& item, Vek_status& status);
  virtual void free_item(uint32_t position, Fmg_item& item, Vek_status& status);
  virtual bool can_modify_item(uint32_t position, Fmg_item& item, Vek_status& status);
  virtual bool is_item_modified(uint32_t position, Fmg_item& item, Vek_status& status);
  virtual bool is_modified(Fmg_item& item, Vek_status& status);
  // The item written anew, owned by the caller, who must look at the
  // status before using it; null from this base.
  virtual Vek_buffer* rebuild(Fmg_item& item, Vek_status& status);
  // Destroys the handler.
  virtual void release();

 protected:
  virtual ~Fmg_handler_base() = default;
  Vek_buffer* data = nullptr;
};

// Stands for an item that is known to be a message whose inside cannot be
// reached: no sub-items, no change, nothing to rebuild.
class Smtp_opaque_handler : public Fmg_handler_base {
 protected:
  ~Smtp_opaque_handler() override = default;
};

// Holds a handler and ends it with release(), for code that owns one for a
// while (and must end it also when an exception passes).
struct Fmg_handler_release {
  void operator()(Fmg_handler_base* handler) const {
    if (handler != nullptr) handler->release();
  }
};
using Fmg_handler_ptr = std::unique_ptr<Fmg_handler_base, Fmg_handler_release>;

#endif  // SMTPFM_MANAGER_HANDLER_BASE_H_
