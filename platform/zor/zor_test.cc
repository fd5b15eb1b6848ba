#include <gtest/gtest.h>

#include "contracts/zor.h"

namespace {

TEST(Zor, Condition) {
  Zor_condition condition;
  EXPECT_FALSE(condition.is_satisfied(u"smtp"));  // uninitialised: nothing
  condition.initialise(u" Smtp ; mime,, other ");
  EXPECT_TRUE(condition.is_satisfied(u"SMTP"));
  EXPECT_TRUE(condition.is_satisfied(u"mime"));
  EXPECT_FALSE(condition.is_satisfied(u""));
  EXPECT_FALSE(condition.is_satisfied(u"oth"));
  condition.initialise(u"");
  EXPECT_FALSE(condition.is_satisfied(u"smtp"));
}

}  // namespace
