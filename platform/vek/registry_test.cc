#include "platform/vek/registry.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>

namespace {

class Registry : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = std::filesystem::temp_directory_path() /
            ("vek-registry-" + std::to_string(getpid()) + "-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    std::filesystem::remove_all(root_);
    vek_set_registry_root(root_.string());
  }
  void TearDown() override {
    vek_registry_fail_writes_of(u"");
    std::filesystem::remove_all(root_);
  }
  std::filesystem::path root_;
};

TEST_F(Registry, EnumerateAndRemove) {
  Vek_status status;
  for (auto key : {u"b", u"a"}) vek_set_reg_uint_value(HKEY_LOCAL_MACHINE, u"P", key, u"v", 1, status);
  Vek_ptrvec_impl names(8);
  vek_enum_reg_keys(HKEY_LOCAL_MACHINE, u"P", u"", names, status);
  ASSERT_EQ(names.size(), 2u);
  EXPECT_EQ(*static_cast<Vek_wstring*>(names.at(0)), u"a");
  for (void* name : names) delete static_cast<Vek_wstring*>(name);

  vek_remove_reg_key(HKEY_LOCAL_MACHINE, u"P", u"", u"a", status);
  EXPECT_TRUE(status.ok());
  vek_remove_reg_key(HKEY_LOCAL_MACHINE, u"P", u"", u"a", status);  // already gone: still a success
  EXPECT_TRUE(status.ok());
  EXPECT_FALSE(vek_read_reg_key(HKEY_LOCAL_MACHINE, u"P\\a").has_value());
  EXPECT_TRUE(vek_read_reg_key(HKEY_LOCAL_MACHINE, u"P\\b").has_value());

  Vek_ptrvec_impl none(8);
  vek_enum_reg_keys(HKEY_LOCAL_MACHINE, u"Missing", u"", none, status);
  EXPECT_TRUE(status.ok());
  EXPECT_TRUE(none.empty());
}

TEST(Utf, RoundTrip) {
  Vek_wstring text = u"a\u00E9\u4E2D\U0001F600";
  EXPECT_EQ(vek_utf8_to_utf16(vek_utf16_to_utf8(text)), text);
  EXPECT_EQ(vek_utf16_to_utf8(u"\u00E9"), "\xC3\xA9");
}

}  // namespace
