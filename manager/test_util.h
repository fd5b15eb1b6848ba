// Helpers of the handlers' tests: buffers from text and back, message text
// with CR LF line ends, owners that end plug-in objects with release(), and
// the check that a handler refuses positions out of range.
#ifndef SMTPFM_MANAGER_TEST_UTIL_H_
#define SMTPFM_MANAGER_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/vek.h"
#include "manager/handler_base.h"
#include "manager/manager_base.h"

namespace smtp_test {

// Lines joined with CR LF behind each, as a host hands mail over.
inline std::string crlf(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += line + "\r\n";
  return text;
}

// A growing buffer holding `text`, owned by the caller.
inline std::unique_ptr<Vek_memory_buffer> make_buffer(std::string_view text) {
  auto buffer = std::make_unique<Vek_memory_buffer>();
  Vek_status status;
  if (!text.empty()) buffer->write_at(0, text.data(), text.size(), status);
  return buffer;
}

// The bytes of a buffer as a string; empty for null.
inline std::string text_of(const Vek_buffer* buffer) {
  if (buffer == nullptr || buffer->size() == 0) return std::string();
  return std::string(reinterpret_cast<const char*>(buffer->data()), buffer->size());
}

// The UTF-16 text of an exported header record.
inline std::u16string wide_text_of(const Vek_buffer* buffer) {
  std::u16string text(buffer->size() / 2, u'\0');
  if (!text.empty()) std::memcpy(text.data(), buffer->data(), text.size() * 2);
  return text;
}

struct Object_release {
  void operator()(Plg_object* object) const {
    if (object != nullptr) object->release();
  }
};
template <typename T>
using Object_ptr = std::unique_ptr<T, Object_release>;

// Every item call of `handler` at `position`, which is out of range, throws
// std::invalid_argument naming the handler's class `name` and the call; a
// buffer that set_item refuses stays the caller's (one on the stack here:
// the sanitizer build sees a handler that frees it).
inline void expect_position_refused(Fmg_handler_base& handler, Fmg_item& item, uint32_t position,
                                    const std::string& name) {
  Vek_status status;
  Vek_memory_buffer replacement;
  uint32_t walk = position;
  const std::pair<const char*, std::function<void()>> calls[] = {
      {"get_item", [&] { handler.get_item(walk, item, status); }},
      {"free_item", [&] { handler.free_item(position, item, status); }},
      {"can_modify_item", [&] { handler.can_modify_item(position, item, status); }},
      {"is_item_modified", [&] { handler.is_item_modified(position, item, status); }},
      {"set_item", [&] { handler.set_item(position, &replacement, item, status); }},
  };
  for (const auto& [operation, call] : calls) {
    std::string what = "no exception";
    try {
      call();
    } catch (const std::invalid_argument& e) {
      what = e.what();
    }
    EXPECT_EQ(what, name + "::" + operation + " - invalid position.");
  }
}

}  // namespace smtp_test

#endif  // SMTPFM_MANAGER_TEST_UTIL_H_
