// The plug-in as a host sees it: loaded through the loader, found by name
// and type, creating and counting managers, registering itself.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "contracts/status_codes.h"
#include "manager/format_manager.h"
#include "platform/fmg/plg_loader.h"
#include "platform/vek/registry.h"
#include "shell/plg_frame.h"

namespace {

// The status codes are part of the interface: the host writes their
// numbers into its logs, and a log is read long after it was written.
static_assert(vek_end_of_stream == 0xc2000019 && vek_line_too_long == 0xc200001c);
static_assert(smtp_bad_base64 == 0xc2010505 && smtp_comment_not_closed == 0xc2010507 &&
              smtp_not_header_line == 0xc2010508 && smtp_bad_content_type == 0xc2010509 &&
              smtp_bad_content_disposition == 0xc201050a && smtp_bad_transfer_encoding == 0xc201050b &&
              smtp_bad_encoding_field == 0xc201050c && smtp_quoted_string_not_closed == 0xc201050d &&
              smtp_no_opening_bracket == 0xc201050e && smtp_no_opening_parenthesis == 0xc201050f &&
              smtp_no_opening_quote == 0xc2010510 && smtp_domain_literal_not_closed == 0xc2010511 &&
              smtp_qp_end_in_escape == 0xc2010519 && smtp_base64_encoder_end == 0xc201051a &&
              smtp_content_type_not_single_word == 0xc201051c && smtp_multipart_without_boundary == 0xc2020402);

constexpr Tav_guid smtp_type = {0xD00BCC02, 0x7BB8, 0x11D1, {0xA9, 0x3B, 0x00, 0xA0, 0xC9, 0x43, 0x08, 0x65}};

using Get_factory = Plg_element* (*)(const char16_t*, const Tav_guid*);
using Can_unload = int (*)();
using Register = bool (*)();

class Module : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    module_ = Plg_module::load(SMTPFM_MODULE_PATH, error);
    ASSERT_NE(module_, nullptr) << error;
    get_factory_ = module_->function<Get_factory>("plg_get_factory");
    can_unload_ = module_->function<Can_unload>("plg_can_unload_now");
    register_ = module_->function<Register>("plg_register_elements");
    deregister_ = module_->function<Register>("plg_deregister_elements");
    ASSERT_TRUE(get_factory_ && can_unload_ && register_ && deregister_);
    // A registry folder per test and process: ctest runs tests side by side.
    root_ = std::filesystem::temp_directory_path() /
            ("smtpfm-shell-registry-" + std::to_string(getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(root_);
    vek_set_registry_root(root_.string());
  }
  void TearDown() override {
    vek_registry_fail_writes_of(u"");
    std::filesystem::remove_all(root_);
  }
  // The values of the element's key as "name=value" lines, in order.
  std::vector<std::string> values() {
    auto key = vek_read_reg_key(HKEY_LOCAL_MACHINE, std::u16string(key_path));
    std::vector<std::string> lines;
    for (const auto& v : key.value_or(std::vector<Vek_reg_value>{}))
      lines.push_back(vek_utf16_to_utf8(v.name) + "=" +
                      (v.is_string ? vek_utf16_to_utf8(v.text) : std::to_string(v.number)));
    return lines;
  }
  static constexpr char16_t key_path[] =
      u"Software\\Tarnwell Systems\\Plugins\\Larkspire SMTP Message\\{D00BCC02-7BB8-11D1-A93B-00A0C9430865}";
  std::unique_ptr<Plg_module> module_;
  Get_factory get_factory_ = nullptr;
  Can_unload can_unload_ = nullptr;
  Register register_ = nullptr;
  Register deregister_ = nullptr;
  std::filesystem::path root_;
};

TEST_F(Module, ExportsOnlyItsInterfaceAndFindsTheElementByNameAndType) {
  for (auto name : {"DllMain", "plg_get_factory", "plg_can_unload_now", "plg_register_elements",
                    "plg_deregister_elements"})
    EXPECT_NE(module_->symbol(name), nullptr) << name;
  EXPECT_EQ(module_->symbol("plg_find_factory"), nullptr);  // internals stay hidden
  EXPECT_EQ(module_->symbol("plg_object_count"), nullptr);
  // Names match in any case; the element's strings and versions are
  // checked where registration writes them.
  Plg_element* element = get_factory_(u"larkspire smtp message", &smtp_type);
  ASSERT_NE(element, nullptr);
  EXPECT_EQ(element->name(), u"Larkspire SMTP Message");
  Tav_guid other = smtp_type;
  other.data1 ^= 1;
  EXPECT_EQ(get_factory_(u"Larkspire SMTP Message", &other), nullptr);
  EXPECT_EQ(get_factory_(u"", &smtp_type), nullptr);
  EXPECT_EQ(get_factory_(u"Larkspire SMTP", &smtp_type), nullptr);
}

TEST_F(Module, CountsManagersAndConfiguresThem) {
  Plg_element* element = get_factory_(u"Larkspire SMTP Message", &smtp_type);
  ASSERT_NE(element, nullptr);
  EXPECT_EQ(can_unload_(), 1);
  auto* manager = static_cast<Smtp_format_manager*>(element->create());
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(can_unload_(), 0);

  Tav_property_list list;
  list.add(u"ExportHeader", u"subject");
  list.add(u"exportheader", u"Date");
  list.add(u"ExportHeader", u"SUBJECT");
  list.add(Tav_property(u"AddBody", true));
  list.add(u"PolicyList", u"smtp;mime");
  Vek_status status(vek_bad_argument);
  manager->set_properties(list, status);
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(manager->export_headers(), (std::vector<std::string>{"DATE", "SUBJECT", "SUBJECT"}));
  EXPECT_TRUE(manager->add_empty_body());
  EXPECT_TRUE(manager->accept(u""));
  EXPECT_TRUE(manager->accept(u"SMTP"));
  EXPECT_FALSE(manager->accept(u"pdf"));

  // A new list replaces the headers and AddBody whole; the policy stays.
  manager->set_properties(Tav_property_list(), status);
  EXPECT_TRUE(manager->export_headers().empty());
  EXPECT_FALSE(manager->add_empty_body());
  EXPECT_TRUE(manager->accept(u"mime"));

  manager->release();
  EXPECT_EQ(can_unload_(), 1);
}

TEST_F(Module, WritesTheKeyAndTakesItAway) {
  ASSERT_TRUE(register_());
  std::string image = std::filesystem::canonical(SMTPFM_MODULE_PATH).string();
  const std::vector<std::string> want = {
      "ImagePath=" + image,      "LibraryVersion=262144",        "DisplayName=SMTP Message",
      "=Larkspire SMTP Format Manager", "InterfaceVersion=262144", "ImplementationVersion=262144",
      "Order=smtp"};
  EXPECT_EQ(values(), want);
  ASSERT_TRUE(register_());  // again: the same values
  EXPECT_EQ(values(), want);

  // Another type under the same name survives our deregistration.
  Vek_status status;
  vek_set_reg_uint_value(HKEY_LOCAL_MACHINE, u"Software\\Tarnwell Systems\\Plugins",
                         u"Larkspire SMTP Message\\{00000000-0000-0000-0000-000000000000}", u"X", 1, status);
  ASSERT_TRUE(deregister_());
  EXPECT_TRUE(values().empty());
  auto name_key = root_ / "HKEY_LOCAL_MACHINE/Software/Tarnwell Systems/Plugins/Larkspire SMTP Message";
  EXPECT_TRUE(std::filesystem::exists(name_key / "{00000000-0000-0000-0000-000000000000}"));

  std::filesystem::remove_all(name_key / "{00000000-0000-0000-0000-000000000000}");
  EXPECT_TRUE(deregister_());  // nothing of ours left: a missing key counts as removed
  EXPECT_FALSE(std::filesystem::exists(name_key));
  EXPECT_TRUE(std::filesystem::exists(name_key.parent_path()));  // the path itself stays
}

TEST_F(Module, FailedImagePathSkipsTheRestButWritesTheOrder) {
  vek_registry_fail_writes_of(u"ImagePath");
  EXPECT_FALSE(register_());
  EXPECT_EQ(values(), std::vector<std::string>{"Order=smtp"});
}

// A module whose application refuses to load: the load fails after exactly
// one unload().
TEST(Loader, RefusedLoadUnloadsOnce) {
  int unloads = 0;
  std::string address = std::to_string(reinterpret_cast<uintptr_t>(&unloads));
  setenv("SMTPFM_REFUSING_MODULE_COUNTER", address.c_str(), 1);
  std::string error;
  auto module = Plg_module::load(SMTPFM_REFUSING_MODULE_PATH, error);
  EXPECT_EQ(module, nullptr);
  EXPECT_NE(error.find("refused"), std::string::npos) << error;
  EXPECT_EQ(unloads, 1);
  unsetenv("SMTPFM_REFUSING_MODULE_COUNTER");
}

// The slot of a virtual member function in its class's table: under the
// Itanium C++ ABI a pointer to a virtual member holds 1 plus the slot's
// offset in bytes.
template <typename Member>
size_t slot_of(Member member) {
  struct Representation {
    uintptr_t pointer;
    ptrdiff_t adjustment;
  } representation;
  static_assert(sizeof(Member) == sizeof(Representation));
  std::memcpy(&representation, &member, sizeof representation);
  if (representation.pointer % sizeof(void*) != 1) return SIZE_MAX;  // not virtual
  return (representation.pointer - 1) / sizeof(void*);
}

// A host calls the element through its table, slot by slot as the contract
// orders them; a destructor or a new operation in front of create() would
// make it call the wrong function.
TEST(Frame, ElementSlotsStandInTheOrderOfTheContract) {
  EXPECT_EQ(slot_of(&Plg_element::type), 0u);
  EXPECT_EQ(slot_of(&Plg_element::interface_version), 1u);
  EXPECT_EQ(slot_of(&Plg_element::implementation_version), 2u);
  EXPECT_EQ(slot_of(&Plg_element::create), 3u);
  EXPECT_EQ(slot_of(&Plg_element::name), 4u);
  EXPECT_EQ(slot_of(&Plg_element::display_name), 5u);
  EXPECT_EQ(slot_of(&Plg_element::description), 6u);
}

TEST(Frame, PropertiesStopAtTheFirstFailure) {
  struct Probe : Rmx_configurable {
    int seen = 0;
    bool ended = false;
    void set_property(const Tav_property&, Vek_status& status) override {
      if (++seen == 2) status = vek_bad_argument;
    }
    void end_properties(Vek_status&) override { ended = true; }
  } probe;
  Tav_property_list list;
  for (auto name : {u"a", u"b", u"c"}) list.add(name, u"");
  Vek_status status;
  probe.set_properties(list, status);
  EXPECT_EQ(probe.seen, 2);
  EXPECT_FALSE(probe.ended);
  EXPECT_FALSE(status.ok());
}

}  // namespace
