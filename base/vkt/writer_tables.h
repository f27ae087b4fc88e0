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

#include "vkt/writer_blocks.h"

// The largest image that 32-bit offsets and sizes address.
const vkt_u64 kMaxImageSize = 0xFFFFFFFF;

// Distinct entries in first-seen order, found by hash; after number(), the
// ids in table order and each id's place in it. Traits gives hash(e),
// equal(a, b) and less(a, b), the table order.
template <typename Entry, typename Traits>
class Interner {
 public:
  vkt_u32 add(const Entry& e) {
    if ((mEntries.size() + 1) * 2 > mSlots.size()) grow();
    const vkt_u64 h = Traits::hash(e);
    const size_t mask = mSlots.size() - 1;
    for (size_t i = size_t(h) & mask;; i = (i + 1) & mask) {
      const vkt_u32 slot = mSlots[i];
      if (slot == 0) {
        mEntries.push_back(e);
        mHashes.push_back(h);
        mSlots[i] = vkt_u32(mEntries.size());
        return mSlots[i] - 1;
      }
      if (mHashes[slot - 1] == h && Traits::equal(mEntries[slot - 1], e)) {
        return slot - 1;
      }
    }
  }

  // Sorts once; after this tag(id) is the entry's place in table order.
  void number() {
    mOrder.resize(mEntries.size());
    for (vkt_u32 i = 0; i < mOrder.size(); ++i) mOrder[i] = i;
    std::sort(mOrder.begin(), mOrder.end(), [this](vkt_u32 a, vkt_u32 b) {
      return Traits::less(mEntries[a], mEntries[b]);
    });
    mRank.resize(mEntries.size());
    for (vkt_u32 i = 0; i < mOrder.size(); ++i) mRank[mOrder[i]] = i;
  }

  vkt_u32 tag(vkt_u32 id) const { return mRank[id]; }
  size_t size() const { return mEntries.size(); }
  // The entry at place `index` of the table order.
  const Entry& sorted(size_t index) const { return mEntries[mOrder[index]]; }

 private:
  void grow() {
    mSlots.assign(mSlots.empty() ? 64 : mSlots.size() * 2, 0);
    const size_t mask = mSlots.size() - 1;
    for (vkt_u32 id = 0; id < mEntries.size(); ++id) {
      size_t i = size_t(mHashes[id]) & mask;
      while (mSlots[i] != 0) i = (i + 1) & mask;
      mSlots[i] = id + 1;
    }
  }

  std::vector<Entry> mEntries;
  std::vector<vkt_u64> mHashes;
  std::vector<vkt_u32> mSlots;  // id + 1, 0 for a free slot
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
  void append(const vkt_u8* p, size_t n) {
    std::memcpy(room(n), p, n);
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
// stored once: an entry names a stretch of the value buffer by offset and
// length, so an image is compared where it lies and never copied.
class SiblingImages {
 public:
  // Starts a container of at most `count` elements. A small one is
  // searched by a scan of the hashes, a larger one through a hash table.
  void reset(size_t count) {
    mStretches.clear();
    mSlots.clear();
    if (count <= kScanUpTo) return;
    size_t slots = 2 * kScanUpTo;
    while (slots < count * 2) slots *= 2;
    mSlots.assign(slots, 0);
  }

  // The image just written at [begin, end) of `buffer`: answers the offset
  // of an equal image stored before, or `begin` when it is new.
  vkt_u32 place(const vkt_u8* p, vkt_u32 begin, vkt_u32 end) {
    Stretch image{begin, end - begin, 0};
    if (mSlots.empty()) {  // a few images: compare them, no hash needed
      for (const Stretch& s : mStretches) {
        if (s.length == image.length &&
            std::memcmp(p + s.offset, p + begin, s.length) == 0) {
          return s.offset;
        }
      }
      mStretches.push_back(image);
      return begin;
    }
    image.hash = hash_bytes(p + begin, image.length);
    const size_t mask = mSlots.size() - 1;
    for (size_t i = size_t(image.hash) & mask;; i = (i + 1) & mask) {
      const vkt_u32 slot = mSlots[i];
      if (slot == 0) {
        mStretches.push_back(image);
        mSlots[i] = vkt_u32(mStretches.size());
        return begin;
      }
      if (equal(p, mStretches[slot - 1], image)) {
        return mStretches[slot - 1].offset;
      }
    }
  }

 private:
  static const size_t kScanUpTo = 8;
  struct Stretch {
    vkt_u32 offset;
    vkt_u32 length;
    vkt_u64 hash;
  };
  static bool equal(const vkt_u8* p, const Stretch& a, const Stretch& b) {
    return a.hash == b.hash && a.length == b.length &&
           std::memcmp(p + a.offset, p + b.offset, a.length) == 0;
  }
  std::vector<vkt_u32> mSlots;  // stretch index + 1, 0 for a free slot
  std::vector<Stretch> mStretches;
};

// The scalar element images of the container being written at one depth,
// each stored once. A scalar's image fits SCALAR_BUFFER_SIZE bytes and is
// its own key: its bytes as two words, zero past its end, so equal keys are
// equal images and no bytes are compared. The caller zeroes the buffer that
// it encodes a scalar into.
class ScalarImages {
 public:
  // Starts a container of at most `count` elements, scanned when small.
  void reset(size_t count) {
    mImages.clear();
    mSlots.clear();
    if (count <= kScanUpTo) return;
    size_t slots = 2 * kScanUpTo;
    while (slots < count * 2) slots *= 2;
    mSlots.assign(slots, 0);
  }

  // The `size` bytes of an image that would go at `begin`: answers the
  // offset of an equal image stored before, or `begin` when it is new.
  vkt_u32 place(const vkt_u8* bytes, vkt_u32 size, vkt_u32 begin) {
    static_assert(SCALAR_BUFFER_SIZE == 16, "two words hold a scalar");
    (void)size;  // the id byte fixes it, and the bytes past it are zero
    Image image{0, 0, begin};
    std::memcpy(&image.low, bytes, 8);
    std::memcpy(&image.high, bytes + 8, 8);
    if (!mSlots.empty()) return placeHashed(image);
    for (const Image& s : mImages) {
      if (s.low == image.low && s.high == image.high) return s.offset;
    }
    mImages.push_back(image);
    return begin;
  }

 private:
  static const size_t kScanUpTo = 8;
  struct Image {
    vkt_u64 low, high;
    vkt_u32 offset;
  };

  vkt_u32 placeHashed(const Image& image) {
    vkt_u64 h = (image.low ^ image.high * 0xC2B2AE3D27D4EB4Full) *
                0x9E3779B97F4A7C15ull;
    h ^= h >> 32;
    const size_t mask = mSlots.size() - 1;
    for (size_t i = size_t(h) & mask;; i = (i + 1) & mask) {
      const vkt_u32 slot = mSlots[i];
      if (slot == 0) {
        mImages.push_back(image);
        mSlots[i] = vkt_u32(mImages.size());
        return image.offset;
      }
      const Image& s = mImages[slot - 1];
      if (s.low == image.low && s.high == image.high) return s.offset;
    }
  }
  std::vector<vkt_u32> mSlots;  // image index + 1, 0 for a free slot
  std::vector<Image> mImages;
};

struct VKTWriterObject::Tables {
  explicit Tables(bool optimize) : optimize(optimize) {}

  // Sorts every table once all entries are in.
  void number() {
    keys.number();
    strings.number();
    streams.number();
    bstreams.number();
  }

  // Scratch space of one container depth, one per depth that prepare saw
  // (levels is sized once, so a level keeps its address).
  struct Level {
    std::vector<vkt_u32> keys;
    std::vector<vkt_u32> offsets;
    SiblingImages siblings;  // containers
    ScalarImages scalars;
  };

  Interner<std::string_view, TextTraits> keys;
  Interner<std::string_view, TextTraits> strings;
  Interner<StreamEntry, StreamTraits> streams;
  Interner<StreamEntry, StreamTraits> bstreams;
  const bool optimize;  // share equal element images within a container
  std::vector<Level> levels;
  ValueBuffer* value = nullptr;  // the encoding walk's output
  // Set once the root value passes kMaxImageSize; the walk then stops.
  bool tooLarge = false;
  size_t deepest = 0;   // containers open at once, at most, as prepare saw
  size_t depth = 0;     // of the container being written
  size_t sizeHint = 0;  // the root value's likely size, summed by prepare
};

#endif  // VKT_WRITER_TABLES_H_
