// The uuencode format manager: opens an item whose text holds uuencoded
// files (what the SMTP plug-in cuts from a text body at its first block,
// or an x-uuencode body) into one decoded item per block, named by its
// "begin" line, and the text between the blocks as text items.
//
// Uue_manager keeps nothing of an item; the handler it returns owns its
// records and views the host's buffer, which must outlive it. A replaced
// block is written back uuencoded under its mode and the ItemName that the
// host's item carries at set_item; a replaced text as it is given.
#ifndef SMTPFM_UUE_UUE_MANAGER_H_
#define SMTPFM_UUE_UUE_MANAGER_H_

#include <memory>
#include <string>
#include <vector>

#include "manager/handler_base.h"
#include "manager/manager_base.h"
#include "uue/uuencode.h"

class Uue_manager : public Fmg_manager_base {
 public:
  explicit Uue_manager(Plg_element* element) : Fmg_manager_base(element) {}
  // Takes an item that holds at least one block; null otherwise, with a
  // good status. Binary data (a NUL byte early in the item) holds none.
  Fmg_handler_base* open(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override;

 protected:
  ~Uue_manager() override = default;
};

class Uue_handler : public Fmg_handler_base {
 public:
  // One record per block and per stretch of text around them, in order.
  struct Record {
    bool block = false;
    Uue_block frame;                     // of a block
    std::unique_ptr<Vek_buffer> buffer;  // the decoded block, or a view of the text
    bool modified = false;
    std::string name;  // the block's name for writing back
  };

  // Cuts `buffer`'s text at the blocks; the buffer stays the host's.
  void set_data(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override;
  bool has_items(Fmg_item& item, Vek_status& status) override;
  // A block: ItemType AttachmentItem, ItemName from its "begin" line; a
  // text: ItemType BodyItem. Throws invalid_argument for a bad position.
  Vek_buffer* get_item(uint32_t& position, Fmg_item& item, Vek_status& status) override;
  // Takes over `buffer`; throws invalid_argument for a bad position.
  void set_item(uint32_t position, Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override;
  bool can_modify_item(uint32_t position, Fmg_item& item, Vek_status& status) override;
  bool is_item_modified(uint32_t position, Fmg_item& item, Vek_status& status) override;
  bool is_modified(Fmg_item& item, Vek_status& status) override;
  // The text with every replaced record written anew; the caller's.
  Vek_buffer* rebuild(Fmg_item& item, Vek_status& status) override;

 protected:
  ~Uue_handler() override = default;

 private:
  friend class Uue_manager;
  // Cuts `buffer`'s text at `blocks`, which find_uue_blocks found in it.
  void cut(Vek_buffer* buffer, const std::vector<Uue_block>& blocks);
  Record& at(uint32_t position, const char* call);
  std::vector<Record> records_;
};

#endif  // SMTPFM_UUE_UUE_MANAGER_H_
