// The library's built-in check.
#include <gtest/gtest.h>

#include "testutil.h"

TEST(SelfTest, FindsNoMismatchAndAddsToTheCallersCount) {
  vkt_u32 mismatches = 5;  // added to, never reset
  vkt_test(&mismatches);
  EXPECT_EQ(mismatches, 5u);
  vkt_test(nullptr);
}
