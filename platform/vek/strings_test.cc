#include <gtest/gtest.h>

#include "contracts/vek.h"

namespace {

TEST(Strings, WideningAndNarrowing) {
  EXPECT_EQ(vek_stow("a\xE9"), (Vek_wstring{u'a', u'\xE9'}));
  EXPECT_EQ(vek_wtos(u"a\u00E9\u4E2D"), "a\xE9?");
}

}  // namespace
