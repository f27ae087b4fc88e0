// The library's built-in check and image walk.
#include <gtest/gtest.h>

#include "testutil.h"

namespace {

TEST(SelfTest, FindsNoMismatchAndAddsToTheCallersCount) {
  vkt_u32 mismatches = 0;
  vkt_test(&mismatches);
  EXPECT_EQ(mismatches, 0u);
  mismatches = 5;  // added to, never reset
  vkt_test(&mismatches);
  EXPECT_EQ(mismatches, 5u);
  vkt_test(nullptr);
  vkt_test();

  VKTWriterValue root;
  root["k"] = "v";
  vkt_dump_image(VKTWriterObject().createImage(root));
  vkt_dump_image(vkt_binary());
}

}  // namespace
