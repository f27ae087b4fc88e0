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

// Objects built one after another on a thread share their key lists where
// their keys agree. Each still writes as it would alone (built on a thread
// of its own, which shares with nothing), whether it follows another's keys,
// uses a prefix of them, parts from them at any place, outgrows the shape
// hints, or gets keys after others took its list up; and its member nodes
// stay where they were made.
TEST(WriterValue, ObjectsSharingKeysWriteAsTheyWouldAlone) {
  std::vector<std::string> wide, wideOther;
  for (int i = 0; i < 70; ++i)
    wide.push_back("w" + std::to_string(i * 37 % 70));
  wideOther = wide;
  wideOther[40] = "other";
  std::vector<std::vector<std::string>> shapes = {
      {"id", "name", "score"},
      {"id", "name", "score"},
      {"id", "name"},
      {"id", "x", "name"},
      {"id", "name", "score", "tags"},
      {"b", "a"},
      {"b", "a", "c"},
      {"b"},
      {"", "\xC3", "b", "a"},
      wide,
      wide,
      wideOther,
      {"w0"},
  };
  auto fill = [](VKTWriterValue* o, const std::vector<std::string>& keys,
                 size_t from, int base) {
    for (size_t k = from; k < keys.size(); ++k) (*o)[keys[k]] = base + int(k);
  };
  std::vector<VKTWriterValue> built(shapes.size());
  std::vector<std::vector<VKTWriterValue*>> nodes(shapes.size());
  for (size_t i = 0; i < shapes.size(); ++i) {
    fill(&built[i], shapes[i], 0, int(i) * 100);
    for (const std::string& k : shapes[i]) nodes[i].push_back(&built[i][k]);
  }
  const std::pair<size_t, const char*> late[] = {
      {0, "late"}, {1, "later"}, {2, "score"}, {5, "c"}, {9, "w70"}, {7, "a"}};
  for (const auto& [i, key] : late) {
    shapes[i].push_back(key);
    fill(&built[i], shapes[i], shapes[i].size() - 1, int(i) * 100);
  }
  for (size_t i = 0; i < shapes.size(); ++i) {
    for (size_t k = 0; k < nodes[i].size(); ++k) {
      EXPECT_EQ(&built[i][shapes[i][k]], nodes[i][k]) << i << " " << k;
    }
    VKTWriterValue alone;
    std::thread([&] { fill(&alone, shapes[i], 0, int(i) * 100); }).join();
    EXPECT_EQ(written_root(built[i]), written_root(alone)) << i;
  }
}

// Strings of up to ten bytes live in their node and longer ones in a block;
// either way a copy keeps its text when the original is set again, and
// equal texts, set or copied, are one table entry.
TEST(WriterValue, StringsOfEverySizeKeepTheirText) {
  std::vector<std::string> texts = {std::string("a\0b", 3)};
  for (size_t n = 0; n <= 12; ++n)
    texts.push_back(std::string(n, char('a' + n)));
  VKTWriterValue root, copies;
  for (size_t i = 0; i < texts.size(); ++i) {
    root[i] = texts[i];
    copies[i] = root[i];
    root[i] = i % 2 ? "x" : "a longer text than ten";
  }
  root.append(copies);
  VKTObject obj(VKTWriterObject().createImage(root));
  const VKTValue back = obj.root()[vkt_u32(texts.size())];
  for (size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(std::string(back[vkt_u32(i)].asStringView()), texts[i]) << i;
  }
  VKTWriterValue same;
  same[0] = "tenletters";
  same[1] = std::string("tenletters");
  same[2] = VKTWriterValue(same[0]);
  same[3] = "more than ten";
  same[4] = VKTWriterValue(same[3]);
  EXPECT_EQ(to_hex(written_root(same, false)),
            "20 0D 05 0D 00 02 04 06 08 15 01 15 01 15 01 15 00 15 00");
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
      pair[2]["id"] = i;  // objects of one shape share their keys
      pair[2]["name"] = "a name longer than ten";
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
    // Dropped on another thread while this one builds the same shape.
    build(&dropped);
    VKTWriterValue built;
    std::thread dropper([&] { dropped = VKTWriterValue(); });
    build(&built);
    dropper.join();
    EXPECT_EQ(written_root(built), expected);
  }
  VKTWriterValue again;
  build(&again);
  EXPECT_EQ(written_root(again), expected);
}

// A tree built while the thread ends (in the destructor of a thread-local
// made before the writer's own) finds the thread's caches closed, and
// still writes; the sanitizer build checks that nothing freed is read.
TEST(WriterValue, TreesBuiltWhileTheThreadEnds) {
  struct Late {
    vkt_binary* image;
    ~Late() {
      VKTWriterValue v;
      v["alpha"] = 1;
      v["beta"] = "a string longer than ten bytes";
      *image = VKTWriterObject().createImage(v);
    }
  };
  vkt_binary late;
  std::thread([&] {
    thread_local Late end{nullptr};
    end.image = &late;
    VKTWriterValue a;
    a["alpha"] = 1;
    a["beta"] = 2;
  }).join();
  EXPECT_TRUE(VKTObject::verify(late));
  EXPECT_EQ(VKTObject(late).root()["beta"].asStringView(),
            "a string longer than ten bytes");
}
