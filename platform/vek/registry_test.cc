#include "platform/vek/registry.h"

#include <gtest/gtest.h>

// (The registry itself is written and read through the module's own
// registration: shell/shell_test.cc.)
namespace {

TEST(Utf, RoundTrip) {
  Vek_wstring text = u"a\u00E9\u4E2D\U0001F600";
  EXPECT_EQ(vek_utf8_to_utf16(vek_utf16_to_utf8(text)), text);
  EXPECT_EQ(vek_utf16_to_utf8(u"\u00E9"), "\xC3\xA9");
}

}  // namespace
