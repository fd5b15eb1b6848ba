#include "uue/uue_manager.h"

#include <stdexcept>

#include "contracts/zor.h"

namespace {

std::string_view text_of(const Vek_buffer* buffer) {
  if (buffer == nullptr || buffer->size() == 0) return {};
  return {reinterpret_cast<const char*>(buffer->data()), static_cast<size_t>(buffer->size())};
}

std::unique_ptr<Vek_buffer> buffer_of(std::string_view bytes) {
  auto buffer = std::make_unique<Vek_memory_buffer>();
  Vek_status status;
  if (!bytes.empty()) buffer->write_at(0, bytes.data(), bytes.size(), status);
  return buffer;
}

// How far into an item a NUL byte marks it as binary data, as git and
// grep judge a file: NUL never stands in text that a client shows, and a
// client looks for uuencoded files only in text. Bounded so that refusing
// a large binary item costs the same as refusing a small one.
constexpr size_t binary_probe = 8000;

// Whether `text` is binary: a NUL byte in its first `binary_probe` bytes
// with no "begin" line in front of it (a block followed by binary bytes is
// still a block a client decodes).
bool is_binary(std::string_view text) {
  const size_t nul = text.substr(0, binary_probe).find('\0');
  if (nul == std::string_view::npos) return false;
  const std::string_view head = text.substr(0, nul);
  return !head.starts_with("begin ") && head.find("\nbegin ") == std::string_view::npos;
}

// The line end of the "begin" line, which a block written anew keeps.
std::string_view line_end(std::string_view text, const Uue_block& block) {
  const size_t lf = text.find('\n', block.begin);
  if (lf == std::string_view::npos) return "\r\n";
  return lf > block.begin && text[lf - 1] == '\r' ? "\r\n" : "\n";
}

}  // namespace

Fmg_handler_base* Uue_manager::open(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) {
  status.clear();
  // An exported header field is text that a manager made, never a file.
  const Tav_property* charset = item.properties().find(ZOR_ITEM_CHARSET);
  if (charset != nullptr && charset->type() == Tav_property::type_string &&
      vek_string_equal_nc(charset->string_value(), u"UNICODE"))
    return nullptr;
  const std::string_view text = text_of(buffer);
  if (is_binary(text)) return nullptr;
  std::vector<Uue_block> blocks = find_uue_blocks(text);
  if (blocks.empty()) return nullptr;
  auto* uue = new Uue_handler;
  Fmg_handler_ptr handler(uue);
  uue->cut(buffer, blocks);
  item.set_property(ZOR_FORMAT_TYPE, u"Container");
  item.set_property(ZOR_FORMAT_SUBTYPE, u"UUE");
  item.log(32, 2, name(), Vek_status());
  return handler.release();
}

void Uue_handler::set_data(Vek_buffer* buffer, Fmg_item&, Vek_status& status) {
  status.clear();
  cut(buffer, find_uue_blocks(text_of(buffer)));
}

void Uue_handler::cut(Vek_buffer* buffer, const std::vector<Uue_block>& blocks) {
  data = buffer;
  records_.clear();
  const std::string_view text = text_of(buffer);
  size_t at = 0;
  auto add_text = [&](size_t end) {
    if (end <= at) return;
    Record record;
    record.buffer = std::make_unique<Vek_sub_buffer>(buffer, at, end);
    records_.push_back(std::move(record));
  };
  for (const Uue_block& block : blocks) {
    add_text(block.begin);
    Record record;
    record.block = true;
    record.frame = block;
    record.name = block.name;
    record.buffer = buffer_of(uudecode(text.substr(block.data, block.stop - block.data)));
    records_.push_back(std::move(record));
    at = block.end;
  }
  add_text(text.size());
}

bool Uue_handler::has_items(Fmg_item&, Vek_status& status) {
  status.clear();
  return !records_.empty();
}

Uue_handler::Record& Uue_handler::at(uint32_t position, const char* call) {
  if (position >= records_.size()) throw std::invalid_argument(std::string("Uue_handler::") + call + " - invalid position.");
  return records_[position];
}

Vek_buffer* Uue_handler::get_item(uint32_t& position, Fmg_item& item, Vek_status& status) {
  status.clear();
  Record& record = at(position, "get_item");
  item.set_property(ZOR_ITEM_TYPE, record.block ? ZOR_ATTACHMENT_ITEM : ZOR_BODY_ITEM);
  item.add_property(Tav_property(ZOR_ITEM_LENGTH, static_cast<int32_t>(record.buffer->size())));
  if (record.block) item.set_property(ZOR_ITEM_NAME, vek_stow(record.name));
  ++position;
  if (position == records_.size()) position = smtp_no_position;
  return record.buffer.get();
}

void Uue_handler::set_item(uint32_t position, Vek_buffer* buffer, Fmg_item& item, Vek_status& status) {
  Record& record = at(position, "set_item");
  status.clear();
  record.buffer.reset(buffer);
  record.modified = true;
  if (record.block) {
    const Tav_property* name = item.properties().find(ZOR_ITEM_NAME);
    if (name != nullptr && name->type() == Tav_property::type_string && !name->string_value().empty())
      record.name = vek_wtos(name->string_value());
  }
}

bool Uue_handler::can_modify_item(uint32_t position, Fmg_item&, Vek_status& status) {
  status.clear();
  at(position, "can_modify_item");
  return true;
}

bool Uue_handler::is_item_modified(uint32_t position, Fmg_item&, Vek_status& status) {
  status.clear();
  return at(position, "is_item_modified").modified;
}

bool Uue_handler::is_modified(Fmg_item&, Vek_status& status) {
  status.clear();
  for (const Record& record : records_)
    if (record.modified) return true;
  return false;
}

Vek_buffer* Uue_handler::rebuild(Fmg_item&, Vek_status& status) {
  status.clear();
  const std::string_view text = text_of(data);
  std::string out;
  for (const Record& record : records_) {
    if (!record.block || !record.modified) {
      if (record.block)
        out.append(text.substr(record.frame.begin, record.frame.end - record.frame.begin));
      else
        out.append(text_of(record.buffer.get()));
      continue;
    }
    out += uuencode_block(record.frame.mode, record.name, text_of(record.buffer.get()), line_end(text, record.frame));
  }
  return buffer_of(out).release();
}
