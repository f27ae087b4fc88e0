// The editable tree: blocks shared without copy on write, and a stream's
// reader deleted with the last node holding it.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "testutil.h"

TEST(WriterValue, CopiesShareOneBlock) {
  bool destroyed = false;
  VKTWriterValue a, b, o, r;
  a[0] = 7;
  b = a;
  b.append(a[0]);  // a sees it too
  EXPECT_EQ(to_hex(written_root(a, false)), "20 0D 02 0D 00 02 05 07 05 07");
  b.setInt(1);  // drops b's reference only
  const VKTWriterValue& self = a;
  a = self;
  VKTWriterValue s;
  s.setStream(new RecordingReadStream(hex("01 02"), &destroyed), 0);
  o.append("k", VKTWriterValue(s));  // copied twice: three nodes share it
  s = a;
  EXPECT_FALSE(destroyed);
  o.append("k", a);        // the old member loses its last reference
  EXPECT_TRUE(destroyed);  // and a second delete would be caught by ASan
  r["child"][0][1] = 2;
  r = r["child"];  // held only by the block it replaces
  r = r[0];
  EXPECT_EQ(to_hex(written_root(r, false)), "20 0D 02 0D 00 01 01 05 02");
}

// Members live in insertion order until a write sorts them; small objects
// are scanned and larger ones indexed. Whatever the order of insertion, each
// key stays one member whose reference stays good, and the image is the same.
TEST(WriterValue, MembersKeepOneNodePerKeyInAnyInsertionOrder) {
  for (const int count : {3, 16, 17, 100}) {
    std::vector<std::string> keys = {"\xC3", ""};  // last and first in order
    for (int i = 0; i < count; ++i)
      keys.push_back(std::to_string(i * 7919 % 1000));
    VKTWriterValue sorted, shuffled;
    std::vector<VKTWriterValue*> refs;
    for (const std::string& k : keys) refs.push_back(&shuffled[k]);
    VKTWriterObject writer;
    writer.createImage(shuffled);  // sorts the members it walks
    for (size_t i = 0; i < keys.size(); ++i) {
      *refs[i] = int(i);
      EXPECT_EQ(&shuffled[keys[i]], refs[i]) << count << " " << keys[i];
    }
    shuffled["new"] = true;  // grows after the sort
    for (const std::string& k :
         std::set<std::string>(keys.begin(), keys.end())) {
      sorted[k];
    }
    for (size_t i = 0; i < keys.size(); ++i) sorted[keys[i]] = int(i);
    sorted["new"] = true;
    EXPECT_EQ(writer.createImage(shuffled), writer.createImage(sorted))
        << count;
  }
}

// Destruction takes a tree down one container at a time: 200,000 levels,
// each held once or twice by the level above, go without a deep call stack,
// and a level still held elsewhere survives with what is below it.
TEST(WriterValue, DeepTreesAreDestroyedWithoutRecursion) {
  auto build = [](int levels, int refs, VKTWriterValue* kept) {
    VKTWriterValue root;
    root = 7;
    for (int i = 0; i < levels; ++i) {
      VKTWriterValue outer;
      for (int r = 0; r < refs; ++r) {
        i % 2 ? outer.append(root)
              : outer.append("k" + std::to_string(r), root);
      }
      root = outer;
      if (i == 2) *kept = root;
    }
    return root;
  };
  for (const int refs : {1, 2}) {
    VKTWriterValue kept, small;
    build(200000, refs, &kept);
    EXPECT_EQ(to_hex(written_root(kept, false)),
              to_hex(written_root(build(3, refs, &small), false)));
  }
}

// An unsigned 64-bit integer may exceed what an image holds, so assigning
// one does not compile; narrower unsigned types and signed ones do.
static_assert(!std::is_assignable<VKTWriterValue&, vkt_u64>::value, "");
static_assert(!std::is_assignable<VKTWriterValue&, size_t>::value, "");
static_assert(!std::is_assignable<VKTWriterValue&, unsigned long long>::value,
              "");
static_assert(std::is_assignable<VKTWriterValue&, vkt_u32>::value, "");
static_assert(std::is_assignable<VKTWriterValue&, long long>::value, "");
static_assert(std::is_assignable<VKTWriterValue&, unsigned char>::value, "");

// Blocks come from per-thread slabs: trees built on one thread and dropped
// on another, with more blocks than a thread keeps for reuse, give every
// block back wherever it ends (the sanitizer build checks for leaks), and
// trees built afterwards on both threads write as before.
TEST(WriterValue, TreesMoveBetweenThreads) {
  auto build = [](VKTWriterValue* root) {
    for (int i = 0; i < 40000; ++i) {
      VKTWriterValue& pair = (*root)[i];
      pair[0] = i;
      pair[1] = "k" + std::to_string(i % 7);
    }
  };
  VKTWriterValue reference;
  build(&reference);
  const vkt_binary expected = written_root(reference);
  for (int round = 0; round < 3; ++round) {
    VKTWriterValue moved;
    std::thread([&] { build(&moved); }).join();
    EXPECT_EQ(written_root(moved), expected);
    VKTWriterValue dropped;
    build(&dropped);
    std::thread([&] { dropped = VKTWriterValue(); }).join();
  }
  VKTWriterValue again;
  build(&again);
  EXPECT_EQ(written_root(again), expected);
}
