// The tables of one writeImage call. The first walk (prepare) interns every
// key, string and stream payload through hash tables and stores the entry's
// id in the tree; numbering then sorts each table once, and the second walk
// (createImage) turns an id into its tag by one array read. The value walk
// builds the root value in one growing buffer with per-depth scratch space,
// so a container allocates nothing of its own.
#ifndef VKT_WRITER_TABLES_H_
#define VKT_WRITER_TABLES_H_

#include <algorithm>
#include <string_view>
#include <vector>

#include "vkt/packed_array.h"
#include "vkt/writer_blocks.h"

namespace vkt_internal {

// The largest image that 32-bit offsets and sizes address.
const vkt_u64 kMaxImageSize = 0xFFFFFFFF;

// Distinct entries in first-seen order, found by hash; after number(), the
// ids in table order and each id's place in it. Traits gives hash(e),
// equal(a, b), less(a, b), the table order, and prefix(e), a number whose
// order agrees with it (a smaller prefix is a smaller entry), so that the
// sort looks at the entries themselves only on equal prefixes.
template <typename Entry, typename Traits>
class Interner {
 public:
  vkt_u32 add(const Entry& e) {
    return add(e, [](const Entry& x) { return x; });
  }
  // The same, storing keep(e) when e is new: a copy that outlives e.
  template <typename Keep>
  vkt_u32 add(const Entry& e, Keep keep) {
    const vkt_u64 h = Traits::hash(e);
    const vkt_u32 next = vkt_u32(mEntries.size());
    const vkt_u32 id = mIndex.findOrAdd(
        h, next,
        [&](vkt_u32 i) {
          return mHashes[i] == h && Traits::equal(mEntries[i], e);
        },
        [this](vkt_u32 i) { return mHashes[i]; });
    if (id == next) {
      mEntries.push_back(keep(e));
      mHashes.push_back(h);
    }
    return id;
  }
  // The entry of an id, as stored.
  const Entry& entry(vkt_u32 id) const { return mEntries[id]; }

  // Sorts once; after this tag(id) is the entry's place in table order.
  // `closed`: no entry is added after it, so the index and the hashes go.
  void number(bool closed = false) {
    struct Keyed {
      vkt_u64 prefix;
      vkt_u32 id;
    };
    std::vector<Keyed> keyed(mEntries.size());
    for (vkt_u32 i = 0; i < keyed.size(); ++i) {
      keyed[i] = Keyed{Traits::prefix(mEntries[i]), i};
    }
    std::sort(keyed.begin(), keyed.end(),
              [this](const Keyed& a, const Keyed& b) {
                if (a.prefix != b.prefix) return a.prefix < b.prefix;
                return Traits::less(mEntries[a.id], mEntries[b.id]);
              });
    mOrder.resize(mEntries.size());
    mRank.resize(mEntries.size());
    for (vkt_u32 i = 0; i < mOrder.size(); ++i) {
      mOrder[i] = keyed[i].id;
      mRank[keyed[i].id] = i;
    }
    if (closed) {
      mIndex = OpenIndex();
      std::vector<vkt_u64>().swap(mHashes);
    }
  }

  vkt_u32 tag(vkt_u32 id) const { return mRank[id]; }
  size_t size() const { return mEntries.size(); }
  // The entry at place `index` of the table order.
  const Entry& sorted(size_t index) const { return mEntries[mOrder[index]]; }

 private:
  std::vector<Entry> mEntries;
  std::vector<vkt_u64> mHashes;
  OpenIndex mIndex;
  std::vector<vkt_u32> mOrder;
  std::vector<vkt_u32> mRank;
};

// Keys and strings: views of text owned by the tree, which holds still
// while the image is written. Ordered as unsigned bytes, a prefix first.
struct TextTraits {
  static vkt_u64 hash(std::string_view s) {
    return hash_bytes(s.data(), s.size());
  }
  static bool equal(std::string_view a, std::string_view b) { return a == b; }
  static bool less(std::string_view a, std::string_view b) { return a < b; }
  // The first eight bytes, the first one highest, zeros past the end.
  static vkt_u64 prefix(std::string_view s) {
    vkt_u64 p = 0;
    for (size_t i = 0; i < 8; ++i) {
      p = p << 8 | (i < s.size() ? vkt_u8(s[i]) : 0);
    }
    return p;
  }
};

// One stream payload, not owned. Equal entries are one payload: memory by
// its bytes, a reader by its identity. The table order is alignment, then
// size, then bytes for memory, readers (after memory) by address.
struct StreamEntry {
  const vkt_u8* ptr;
  vkt_u32 size;
  vkt_u32 alignment;
  VKTReadStream* reader;
};

struct StreamTraits {
  static vkt_u64 hash(const StreamEntry& e) {
    vkt_u64 h = (vkt_u64(e.alignment) << 32 | e.size) * 0x9E3779B97F4A7C15ull;
    if (e.reader != nullptr) return h ^ hash_bytes(&e.reader, sizeof e.reader);
    return h ^ hash_bytes(e.ptr, e.size);
  }
  static bool equal(const StreamEntry& a, const StreamEntry& b) {
    return !less(a, b) && !less(b, a);
  }
  static vkt_u64 prefix(const StreamEntry& e) {
    return vkt_u64(e.alignment) << 32 | e.size;
  }
  static bool less(const StreamEntry& a, const StreamEntry& b) {
    if (a.alignment != b.alignment) return a.alignment < b.alignment;
    if (a.size != b.size) return a.size < b.size;
    if (a.reader == nullptr && b.reader == nullptr) {
      if (a.ptr == b.ptr || a.size == 0) return false;
      return std::memcmp(a.ptr, b.ptr, a.size) < 0;
    }
    return std::less<const VKTReadStream*>()(a.reader, b.reader);
  }
};

// The bytes of the root value as the encoding walk builds them: a vector
// kept at its full size with the bytes in use counted apart, so an append
// is a plain copy; trimmed to the bytes in use by finish().
class ValueBuffer {
 public:
  explicit ValueBuffer(vkt_binary* bytes)
      : mBytes(bytes), mUsed(bytes->size()) {}
  size_t size() const { return mUsed; }
  vkt_u8* data() { return mBytes->data(); }
  // Room for `more` bytes behind those in use; answers where they go.
  vkt_u8* room(size_t more) {
    if (mUsed + more > mBytes->size()) grow(mUsed + more);
    return mBytes->data() + mUsed;
  }
  // Counts `n` bytes written at room() as in use.
  void advance(size_t n) { mUsed += n; }
  void append(const vkt_u8* p, size_t n) {
    std::memcpy(room(n), p, n);
    mUsed += n;
  }
  // The `n` bytes of a scalar's image at the front of `buf`, copied whole
  // (the bytes past n land behind the ones in use and stay unused).
  void appendScalar(const vkt_u8 (&buf)[SCALAR_BUFFER_SIZE], size_t n) {
    std::memcpy(room(SCALAR_BUFFER_SIZE), buf, SCALAR_BUFFER_SIZE);
    mUsed += n;
  }
  // Drops the bytes from `size` on, or adds zero bytes up to it.
  void resize(size_t size) {
    if (size > mUsed) std::memset(room(size - mUsed), 0, size - mUsed);
    mUsed = size;
  }
  // Moves the bytes from `pos` on by `n`: zero bytes open at `pos` for a
  // positive n, the n bytes in front of `pos` close for a negative one.
  void slide(size_t pos, std::ptrdiff_t n) {
    if (n > 0) room(size_t(n));
    vkt_u8* p = mBytes->data();
    std::memmove(p + pos + n, p + pos, mUsed - pos);
    if (n > 0) std::memset(p + pos, 0, size_t(n));
    mUsed += n;
  }
  void finish() { mBytes->resize(mUsed); }

 private:
  // The buffer starts with the capacity prepare's size hint asks, which is
  // seldom far off, so it first fills that and then grows by halves.
  void grow(size_t need) {
    const size_t capacity = mBytes->capacity();
    size_t size =
        capacity > mBytes->size() ? capacity : capacity + capacity / 2;
    if (size < need) size = need;
    mBytes->resize(size);
  }
  vkt_binary* mBytes;
  size_t mUsed;
};

// The element images of the container being written at one depth, each
// stored once; Traits says what an image is (Image, with its `offset`), how
// it hashes and when two are equal. The first few are compared one by one;
// past kScanUpTo they go into a hash index sized for the whole container.
template <typename Traits>
class SiblingSet {
 public:
  typedef typename Traits::Image Image;

  // Starts a container of `count` elements.
  void reset(size_t count) {
    mImages.clear();
    mIndex.clear();
    mCount = count;
  }

  // A new element's image: answers the offset of an equal image stored
  // before, or the image's own offset when it is new. Taken by value, so a
  // caller's fields reach it in registers rather than through a copy in
  // memory read back whole.
  vkt_u32 place(Image image, const vkt_u8* buffer) {
    if (!mIndex.empty() || mImages.size() == kScanUpTo) {
      return placeHashed(image, buffer);
    }
    for (const Image& s : mImages) {
      if (Traits::equal(s, image, buffer)) return s.offset;
    }
    mImages.push_back(image);
    return image.offset;
  }

 private:
  static const size_t kScanUpTo = 8;

  vkt_u32 placeHashed(Image image, const vkt_u8* buffer) {
    auto hashOf = [this, buffer](vkt_u32 i) {
      return Traits::hash(mImages[i], buffer);
    };
    if (mIndex.empty()) {  // from scanning to the index
      // Both sized for the whole container at once: growing by doubling
      // would hold the old and the new copy together at the peak.
      mImages.reserve(mCount);
      mIndex.reserve(mCount);
      for (vkt_u32 i = 0; i < mImages.size(); ++i) {
        mIndex.findOrAdd(
            hashOf(i), i, [](vkt_u32) { return false; }, hashOf);
      }
    }
    const vkt_u32 next = vkt_u32(mImages.size());
    const vkt_u32 found = mIndex.findOrAdd(
        Traits::hash(image, buffer), next,
        [&](vkt_u32 i) { return Traits::equal(mImages[i], image, buffer); },
        hashOf);
    if (found != next) return mImages[found].offset;
    mImages.push_back(image);
    return image.offset;
  }

  std::vector<Image> mImages;
  OpenIndex mIndex;
  size_t mCount = 0;  // elements of the container
};

// A container's image: a stretch of the value buffer named by offset and
// length, compared where it lies and never copied.
struct StretchTraits {
  struct Image {
    vkt_u32 offset;
    vkt_u32 length;
  };
  static vkt_u64 hash(const Image& a, const vkt_u8* p) {
    return hash_bytes(p + a.offset, a.length);
  }
  static bool equal(const Image& a, const Image& b, const vkt_u8* p) {
    return a.length == b.length &&
           std::memcmp(p + a.offset, p + b.offset, a.length) == 0;
  }
};

// A scalar's image fits SCALAR_BUFFER_SIZE bytes and is its own key: its
// bytes as two words, zero past its end (the caller zeroes the buffer it
// encodes into), so equal words are equal images and no bytes are compared.
struct ScalarTraits {
  struct Image {
    vkt_u64 low, high;
    vkt_u32 offset;
  };
  static Image of(const vkt_u8 (&buf)[SCALAR_BUFFER_SIZE], vkt_u32 offset) {
    static_assert(SCALAR_BUFFER_SIZE == 16, "two words hold a scalar");
    Image image{0, 0, offset};
    std::memcpy(&image.low, buf, 8);
    std::memcpy(&image.high, buf + 8, 8);
    return image;
  }
  static vkt_u64 hash(const Image& a, const vkt_u8*) {
    return fold_multiply(a.low ^ 0x9E3779B97F4A7C15ull,
                         a.high ^ 0xC2B2AE3D27D4EB4Full);
  }
  static bool equal(const Image& a, const Image& b, const vkt_u8*) {
    return a.low == b.low && a.high == b.high;
  }
};

// The members of the objects of a tree in key order, and their keys' ids,
// per key list and member count: objects of one shape share both, so the
// order of a record is worked out once per image rather than once per
// record, and the second walk finds it again without sorting.
template <typename TextTable>
class MemberOrders {
 public:
  // Where the entry of the first `count` keys of `list` starts in the pool:
  // count member places in key order, then the ids of their keys in
  // `keys`. `fill(places)` writes the places of a new entry.
  template <typename Fill>
  vkt_u32 find(const KeyList* list, vkt_u32 count, TextTable& keys, Fill fill) {
    if (list == mLast.list && count == mLast.count) return mLast.start;
    const vkt_u32 next = vkt_u32(mEntries.size());
    const vkt_u32 i = mIndex.findOrAdd(
        hashOf(list, count), next,
        [&](vkt_u32 j) {
          return mEntries[j].list == list && mEntries[j].count == count;
        },
        [this](vkt_u32 j) {
          return hashOf(mEntries[j].list, mEntries[j].count);
        });
    if (i == next) {
      const Entry entry{list, count, vkt_u32(mPool.size())};
      mPool.resize(mPool.size() + 2 * size_t(count));
      vkt_u32* places = mPool.data() + entry.start;
      fill(places);
      for (vkt_u32 j = 0; j < count; ++j) {
        places[count + j] = keys.add(list->key(places[j]));
      }
      mEntries.push_back(entry);
    }
    mLast = mEntries[i];
    return mLast.start;
  }
  // The entry that starts at `start`; good until the next find.
  const vkt_u32* at(vkt_u32 start) const { return mPool.data() + start; }

 private:
  struct Entry {
    const KeyList* list;
    vkt_u32 count;
    vkt_u32 start;
  };
  static vkt_u64 hashOf(const KeyList* list, vkt_u32 count) {
    const vkt_u64 h =
        (vkt_u64(reinterpret_cast<std::uintptr_t>(list)) ^ count) *
        0x9E3779B97F4A7C15ull;
    return h ^ (h >> 29);
  }

  std::vector<Entry> mEntries;
  OpenIndex mIndex;
  std::vector<vkt_u32> mPool;
  Entry mLast = {nullptr, 0, 0};  // an empty object's entry is empty
};

// The key, string and stream tables of one writeImage call, and the scratch
// space of the value walk (VKTWriterObject::Tables).
struct WriterTables {
  typedef Interner<std::string_view, TextTraits> TextTable;
  typedef Interner<StreamEntry, StreamTraits> StreamTable;
  explicit WriterTables(bool optimize) : optimize(optimize) {}

  // The id of a member's key, `position` its place in its object. Objects
  // of one shape (records) repeat their keys place by place, so the last
  // key seen at each place is tried before the table.
  // A new key is stored as keep(key) (a copy when `key` is transient); the
  // place remembers the stored text.
  template <typename Keep>
  vkt_u32 keyAt(size_t position, std::string_view key, Keep keep) {
    if (position >= kKeyPlaces) return keys.add(key, keep);
    KeyPlace& last = lastKeys[position];
    if (last.key.data() == nullptr || last.key != key) {
      last.id = keys.add(key, keep);
      last.key = keys.entry(last.id);
    }
    return last.id;
  }
  vkt_u32 keyAt(size_t position, std::string_view key) {
    return keyAt(position, key, [](std::string_view k) { return k; });
  }

  // Interns a string value's text and counts the reference, so that the
  // hint can count each reference's tag at its width once the strings are
  // numbered.
  template <typename Keep>
  vkt_u32 addString(std::string_view text, Keep keep) {
    const vkt_u32 id = strings.add(text, keep);
    if (id == stringRefs.size()) {
      stringRefs.push_back(1);
    } else {
      ++stringRefs[id];
    }
    return id;
  }
  vkt_u32 addString(std::string_view text) {
    return addString(text, [](std::string_view t) { return t; });
  }
  // The bytes of all string tags once the strings are numbered, each at
  // its own width (sizeHint counted each at kSizeHint's three bytes).
  size_t stringTagHint() const {
    size_t bytes = 0;
    for (vkt_u32 id = 0; id < stringRefs.size(); ++id) {
      bytes += size_t(stringRefs[id]) * (1 + unsigned_width(strings.tag(id)));
    }
    return bytes;
  }

  // Sorts every table once all entries are in. Every walk interns its
  // strings before (an encoding walk may still look a key up).
  void number() {
    keys.number();
    strings.number(true);
    streams.number();
    bstreams.number();
  }

  // Scratch space of one container depth, one per depth that prepare saw
  // (levels is sized once, so a level keeps its address).
  struct Level {
    std::vector<vkt_u32> keys;
    std::vector<vkt_u32> offsets;
    SiblingSet<StretchTraits> siblings;
    SiblingSet<ScalarTraits> scalars;
  };

  TextTable keys;
  MemberOrders<TextTable> orders;
  struct KeyPlace {
    std::string_view key;  // null before the first key at this place
    vkt_u32 id;
  };
  static const size_t kKeyPlaces = 32;
  KeyPlace lastKeys[kKeyPlaces] = {};
  TextTable strings;
  StreamTable streams;
  StreamTable bstreams;
  const bool optimize;  // share equal element images within a container
  std::vector<Level> levels;
  ValueBuffer* value = nullptr;  // the encoding walk's output
  // Set once the root value passes kMaxImageSize; the walk then stops.
  bool tooLarge = false;
  size_t deepest = 0;   // containers open at once, at most, as prepare saw
  size_t depth = 0;     // of the container being written
  size_t sizeHint = 0;  // the root value's likely size, summed by prepare
  size_t members = 0;   // object members, for the key arrays' width
  std::vector<vkt_u32> stringRefs;  // references to each string, by id
  vkt_u64 values = 0;  // nodes prepare visited: the image's values, unshared
};

// What writeImage makes a root value of: walked twice in the same order,
// first to fill the tables, then, once they are numbered, to encode.
class ValueSource {
 public:
  virtual ~ValueSource() {}
  // Interns every key, string and stream payload into `tables` and counts
  // values, depth and size hints as a tree's prepare does. Answers null, or
  // the refusal's static text (the tree nests too deep, or whatever else
  // the source cannot go on from).
  virtual const char* prepare(WriterTables& tables) = 0;
  // Appends the root value's image to tables.value.
  virtual void encode(WriterTables& tables) = 0;
};

}  // namespace vkt_internal

#endif  // VKT_WRITER_TABLES_H_
