// Writing one array or object into the value buffer, for every walk that
// encodes a root value (a tree, or JSON text read a second time): the
// elements go into the entity area one after another behind room for the
// head, and the head is written once the offsets are known.
//
//   array:   ID_ARRAY  | offset array | entity area
//   object:  ID_OBJECT | key array | offset array | entity area
//
// With sharing on, byte-identical element images of one container are stored
// once in its entity area and their offsets repeat: a scalar is matched by
// its bytes as two words and a container by its stretch of the buffer; the
// two never match each other (their first bytes differ), so they are looked
// up apart. The offsets' width is known only at the end, and when it differs
// from the guess the elements slide once.
#ifndef VKT_WRITER_CONTAINER_H_
#define VKT_WRITER_CONTAINER_H_

#include "vkt/packed_array.h"
#include "vkt/writer_tables.h"

namespace vkt_internal {

// A likely size of each value's image by type, for reserving the value
// buffer up front: scalars at their widest, tags at two bytes, a container's
// head with one-byte keys and offsets (sharing only makes images smaller).
// The last entry is the writer's short string.
const vkt_u8 kSizeHint[] = {0, 1, 1, 5, 9, 0, 0, 3, 3, 0, 5, 9, 0, 0, 3};
static_assert(sizeof(kSizeHint) == kShortStringType + 1, "one per kind");

inline vkt_u32 head_hint(size_t count, bool withKeys) {
  const vkt_u32 n = vkt_u32(count);
  return 1 + unsigned_array_size(n, 1) * (withKeys ? 2 : 1);
}

inline vkt_u32 clamp_u32(size_t n) {
  return n > 0xFFFFFFFFu ? 0xFFFFFFFFu : vkt_u32(n);
}

// Closes the hint of a container of `count` elements, opened when the
// image's hint stood at `before`: its offsets become as wide as its
// elements' hints make them, rather than one byte each, so that the image's
// hint holds for large containers too; an object's members are counted for
// the keys' width, known once all keys are in. Answers the container's hint.
inline vkt_u32 close_hint(WriterTables& tables, size_t count, bool isObject,
                          size_t before) {
  const vkt_u32 elements = clamp_u32(tables.sizeHint - before);
  tables.sizeHint += (unsigned_width(elements) - 1) * count;
  if (isObject) tables.members += count;
  return clamp_u32(tables.sizeHint - before);
}

// One container being written at tables.depth. For an object, the caller
// fills level().keys with the members' key tags, in key order, before
// open(). Between open() and close(), each element is added in order: a
// scalar by addScalar, a container by writing it (one depth deeper) at the
// end of the buffer and then calling addContainer with where it began.
class ContainerWriter {
 public:
  typedef WriterTables Tables;
  explicit ContainerWriter(Tables& tables)
      : mTables(tables), mLevel(tables.levels[tables.depth]) {}

  Tables::Level& level() { return mLevel; }

  // Room for the head with offsets as wide as `sizeHint` asks; a wrong
  // guess slides the entity area once at the end.
  void open(bool isArray, size_t count, vkt_u32 sizeHint) {
    mIsArray = isArray;
    mLevel.offsets.clear();
    mLevel.offsets.reserve(count);  // one allocation, never a doubling
    if (isArray) mLevel.keys.clear();
    if (mTables.optimize) {
      mLevel.siblings.reset(count);
      mLevel.scalars.reset(count);
    }
    ValueBuffer& out = *mTables.value;
    mKeysSize = isArray ? 0 : unsigned_array_size(mLevel.keys);
    mStart = vkt_u32(out.size());
    mReserved = 1 + mKeysSize +
                unsigned_array_size(vkt_u32(count), unsigned_width(sizeHint));
    out.resize(mStart + mReserved);
    ++mTables.depth;
  }

  // Adds a scalar's image, the first `size` bytes of `buf` (zero behind).
  void addScalar(const vkt_u8 (&buf)[SCALAR_BUFFER_SIZE], vkt_u32 size) {
    if (mTables.tooLarge) return;
    ValueBuffer& out = *mTables.value;
    const vkt_u32 begin = vkt_u32(out.size());
    vkt_u32 offset = begin;
    if (mTables.optimize) {
      offset = mLevel.scalars.place(ScalarTraits::of(buf, begin), nullptr);
    }
    if (offset == begin) out.appendScalar(buf, size);
    added(offset);
  }

  // Adds the container image written from `begin` to the buffer's end.
  void addContainer(vkt_u32 begin) {
    if (mTables.tooLarge) return;
    ValueBuffer& out = *mTables.value;
    vkt_u32 offset = begin;
    if (mTables.optimize) {
      offset = mLevel.siblings.place({begin, vkt_u32(out.size()) - begin},
                                     out.data());
      if (offset != begin) out.resize(begin);  // stored before
    }
    added(offset);
  }

  // ID | [key array] | offset array, in front of the entity area.
  void close() {
    --mTables.depth;
    if (mTables.tooLarge) return;
    ValueBuffer& out = *mTables.value;
    const vkt_u32 headSize =
        1 + mKeysSize + unsigned_array_size(mLevel.offsets);
    if (headSize != mReserved) {
      out.slide(mStart + mReserved,
                std::ptrdiff_t(headSize) - std::ptrdiff_t(mReserved));
    }
    vkt_u8* p = out.data() + mStart;
    *p++ = mIsArray ? ID_ARRAY : ID_OBJECT;
    if (!mIsArray) generate_unsigned_array(p, mLevel.keys);
    generate_unsigned_array(p + mKeysSize, mLevel.offsets);
  }

 private:
  void added(vkt_u32 offset) {
    // Past 32-bit offsets: the walk winds down and the image is refused.
    if (mTables.value->size() > kMaxImageSize) mTables.tooLarge = true;
    mLevel.offsets.push_back(offset - (mStart + mReserved));
  }

  Tables& mTables;
  Tables::Level& mLevel;
  bool mIsArray = true;
  vkt_u32 mKeysSize = 0;
  vkt_u32 mStart = 0;
  vkt_u32 mReserved = 0;
};

// An array of at most kShortArray scalars (a coordinate pair, a short
// list of numbers) is written in one step instead of through a
// ContainerWriter, with the same bytes: its count and its offsets fit one
// byte each, and its equal scalars are found by comparing a few buffers.
const size_t kShortArray = 8;

// The scalars of one short array, each image zero past its size.
struct ShortArray {
  vkt_u8 images[kShortArray][SCALAR_BUFFER_SIZE];
  vkt_u32 sizes[kShortArray];
  size_t count = 0;

  // The zeroed buffer of the next scalar; add() counts it once encoded.
  vkt_u8* next() {
    std::memset(images[count], 0, SCALAR_BUFFER_SIZE);
    return images[count];
  }
  void add(vkt_u32 size) { sizes[count++] = size; }
};

//   ID_ARRAY | ID_UNSIGNED8 count ID_UNSIGNED8 offsets | scalars stored once
inline void write_short_array(WriterTables& tables, const ShortArray& a) {
  static_assert(kShortArray * 9 < 256, "offsets fit one byte");
  if (tables.tooLarge) return;
  vkt_u8 offsets[kShortArray] = {};
  bool stored[kShortArray];
  vkt_u32 entity = 0;
  for (size_t i = 0; i < a.count; ++i) {
    stored[i] = true;
    offsets[i] = vkt_u8(entity);
    for (size_t j = 0; tables.optimize && j < i; ++j) {
      if (stored[j] &&
          std::memcmp(a.images[i], a.images[j], SCALAR_BUFFER_SIZE) == 0) {
        stored[i] = false;
        offsets[i] = offsets[j];
        break;
      }
    }
    if (stored[i]) entity += a.sizes[i];
  }
  ValueBuffer& out = *tables.value;
  const size_t head = 4 + a.count;
  vkt_u8* p = out.room(4 + kShortArray + entity + SCALAR_BUFFER_SIZE);
  p[0] = ID_ARRAY;
  p[1] = ID_UNSIGNED8;
  p[2] = vkt_u8(a.count);
  p[3] = ID_UNSIGNED8;
  // All eight offsets, the unused ones landing where the scalars go next.
  std::memcpy(p + 4, offsets, kShortArray);
  p += head;
  for (size_t i = 0; i < a.count; ++i) {
    if (!stored[i]) continue;
    std::memcpy(p, a.images[i], SCALAR_BUFFER_SIZE);  // room holds the tail
    p += a.sizes[i];
  }
  out.advance(head + entity);
  if (out.size() > kMaxImageSize) tables.tooLarge = true;
}

}  // namespace vkt_internal

#endif  // VKT_WRITER_CONTAINER_H_
