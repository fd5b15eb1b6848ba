#include <gtest/gtest.h>

#include "contracts/tav.h"

namespace {

TEST(Tav, GuidTextAndProperties) {
  Tav_guid guid{0xD00BCC02, 0x7BB8, 0x11D1, {0xA9, 0x3B, 0x00, 0xA0, 0xC9, 0x43, 0x08, 0x65}};
  Vek_wstring text;
  tav_type_to_string(guid, text);
  EXPECT_EQ(text, u"{D00BCC02-7BB8-11D1-A93B-00A0C9430865}");
  Tav_guid other = guid;
  other.data4[7] = 0x66;
  EXPECT_TRUE(tav_is_equal_type(guid, guid));
  EXPECT_FALSE(tav_is_equal_type(guid, other));

  Tav_property_list list;
  list.add(u"Subject", u"hello");
  list.set(Tav_property(u"ItemLength", int32_t{-1}));
  list.set(Tav_property(u"itemlength", int32_t{5}));  // replaces, whatever the case
  list.add(Tav_property(u"MessageItem", true));
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list.find(u"SUBJECT")->string_value(), u"hello");
  EXPECT_EQ(list.find(u"ItemLength")->integer_value(), 5);
  EXPECT_EQ(list.find(u"ItemLength")->type(), 1u);
  EXPECT_EQ(list.find(u"MessageItem")->type(), 2u);
  EXPECT_TRUE(list.find(u"MessageItem")->bool_value());
  EXPECT_EQ(list.find(u"Missing"), nullptr);
}

}  // namespace
