// The reference-counted payload blocks of VKTWriterValue. Each starts with
// mRefCount, the number of nodes that point at it (1 when made); the last
// node to let go deletes the block and what it owns.
//
// A string carries its text in the same allocation, right behind the block,
// so a short string costs one small block:
//
//   StringInfo:  refcount | tag | size | text bytes | NUL
//
// The tag is a scratch field of the writer: a writeImage walk stores there
// where the text stands in its tables, so the second walk needs no lookup.
// Objects keep their keys in a key list that objects of one shape share.
#ifndef VKT_WRITER_BLOCKS_H_
#define VKT_WRITER_BLOCKS_H_

#include <algorithm>
#include <atomic>
#include <cstddef>  // offsetof
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>  // length_error
#include <string>
#include <string_view>
#include <vector>

#include "vkt/block_pool.h"
#include "vkt/format.h"
#include "vkt/hash_bytes.h"

namespace vkt_internal {

// An open-addressing index over entries kept in a vector elsewhere, one
// kind for every lookup of the writer: a slot holds an entry's index + 1
// (0 when free) and, above it, bits of the entry's hash, so that a probe
// that meets another entry mostly tells it apart by those bits without
// reading the entry; linear probing over a power of two slots, at least
// twice the entries. The owner keeps the entries (and their hashes, or a
// way to make them again) and indexes all of them, in order.
class OpenIndex {
 public:
  bool empty() const { return mSlots.empty(); }
  void clear() { mSlots.clear(); }
  // Room for `count` entries without growing; the index must be empty.
  void reserve(size_t count) {
    size_t slots = 64;
    while (slots < count * 2) slots *= 2;
    mSlots.assign(slots, 0);
    mIndexBits = 1;
    while (mIndexBits < 32 && (vkt_u64(1) << mIndexBits) <= count) {
      ++mIndexBits;
    }
  }

  // Among the entries of hash `h`, the index of the one that same(index)
  // accepts; when there is none, `next` (the index the caller's next entry
  // will have, which is also the number of entries indexed) is recorded
  // and answered. hashOf(index) gives an entry's hash when the slots grow.
  // The low bits of `h` place the entry, its high ones tag the slot.
  template <typename Same, typename HashOf>
  vkt_u32 findOrAdd(vkt_u64 h, vkt_u32 next, Same same, HashOf hashOf) {
    if ((size_t(next) + 1) * 2 > mSlots.size() ||
        vkt_u64(next) + 1 >= vkt_u64(1) << mIndexBits) {
      grow(next, hashOf);
    }
    const vkt_u32 indexMask = vkt_u32((vkt_u64(1) << mIndexBits) - 1);
    const vkt_u32 tag = vkt_u32(h >> 32) & ~indexMask;
    const size_t mask = mSlots.size() - 1;
    for (size_t i = size_t(h) & mask;; i = (i + 1) & mask) {
      const vkt_u32 slot = mSlots[i];
      if (slot == 0) {
        mSlots[i] = tag | (next + 1);
        return next;
      }
      if ((slot & ~indexMask) == tag && same((slot & indexMask) - 1)) {
        return (slot & indexMask) - 1;
      }
    }
  }

 private:
  // More entries than reserved for: all placed again in a larger index.
  template <typename HashOf>
  void grow(vkt_u32 entries, HashOf hashOf) {
    reserve(size_t(entries) * 2 + 1);
    for (vkt_u32 e = 0; e < entries; ++e) {
      findOrAdd(
          hashOf(e), e, [](vkt_u32) { return false; }, hashOf);
    }
  }

  std::vector<vkt_u32> mSlots;
  vkt_u32 mIndexBits = 32;
};

// The kind of a node that holds a string of at most kShortMost bytes in
// itself: a number no type of the value encoding uses.
const vkt_u32 kShortStringType = TYPE_MAX;
const size_t kShortMost = 10;

// The largest k with 2^k <= n, for n > 0.
inline size_t floor_log2(size_t n) {
  return sizeof(unsigned long long) * 8 - 1 - __builtin_clzll(n);
}

// The types whose nodes point at a block.
const vkt_u32 kBlockTypes = 1u << TYPE_STRING | 1u << TYPE_STREAM |
                            1u << TYPE_ARRAY | 1u << TYPE_OBJECT;

}  // namespace vkt_internal

inline std::string_view VKTWriterValue::shortText() const {
  static_assert(
      sizeof(VKTWriterValue) == 16 && offsetof(VKTWriterValue, mShortTail) == 8,
      "mShortHead and mShortTail are unbroken");
  return std::string_view(reinterpret_cast<const char*>(this) + 2,
                          vkt_u8(mShortHead[0]));
}
inline vkt_u32 VKTWriterValue::shortTag() const {
  vkt_u32 tag;
  std::memcpy(&tag, mShortTail + 4, sizeof tag);
  return tag;
}
// Writer scratch in a node of a tree passed as const (see VKTWriterObject).
inline void VKTWriterValue::setShortTag(vkt_u32 tag) const {
  std::memcpy(mShortTail + 4, &tag, sizeof tag);
}

struct VKTWriterValue::StringInfo {
  // Pools of their own for texts of up to 11 and 43 bytes, the commonest;
  // longer ones take the pool of their size class, or the heap.
  static const size_t kSmall = 24;
  static const size_t kShort = 56;

  // A new block holding `text`.
  static StringInfo* make(std::string_view text) {
    const size_t bytes = blockBytes(text.size());
    void* p = bytes <= kSmall   ? vkt_internal::BlockPool<kSmall>::take()
              : bytes <= kShort ? vkt_internal::BlockPool<kShort>::take()
                                : vkt_internal::take_sized(bytes);
    return new (p) StringInfo(text);
  }
  // Gives the block back where make took it.
  static void destroy(StringInfo* s) {
    const size_t bytes = blockBytes(s->mSize);
    s->~StringInfo();
    if (bytes <= kSmall) {
      vkt_internal::BlockPool<kSmall>::give(s);
    } else if (bytes <= kShort) {
      vkt_internal::BlockPool<kShort>::give(s);
    } else {
      vkt_internal::give_sized(s, bytes);
    }
  }
  std::string_view text() const {
    return std::string_view(reinterpret_cast<const char*>(this + 1), mSize);
  }

  vkt_s32 mRefCount = 1;
  mutable vkt_u32 mTag = 0;  // writer scratch: the string's table entry
  vkt_u32 mSize;             // a NUL inside the text stays

 private:
  explicit StringInfo(std::string_view text) : mSize(vkt_u32(text.size())) {
    char* p = reinterpret_cast<char*>(this + 1);
    if (!text.empty()) std::memcpy(p, text.data(), text.size());
    p[text.size()] = 0;
  }
  static size_t blockBytes(size_t textSize) {
    return sizeof(StringInfo) + textSize + 1;
  }
};

struct VKTWriterValue::StreamInfo {
  vkt_s32 mRefCount = 1;
  mutable vkt_u32 mTag = 0;            // writer scratch: the table entry
  vkt_binary* mStreamImage = nullptr;  // owned copy of the bytes, or null
  const vkt_u8* mStreamPtr = nullptr;  // where the bytes are; never freed
  vkt_u32 mStreamSize = 0;
  vkt_u32 mStreamAlignment = 0;      // as passed; 0 and 1 mean none
  vkt_u32 mStreamFlags = 0;          // VKT_STREAM_FLAG_BOUND makes a bstream
  VKTReadStream* mReader = nullptr;  // owned; never set with mStreamImage

  ~StreamInfo() {
    delete mReader;
    delete mStreamImage;
  }
  static void destroy(StreamInfo* s) { delete s; }
};

// Elements in index order. Up to two (a pair is the commonest short array)
// live in the block itself; more move to one array on the heap, which grows
// by doubling. The pair is then left as two null nodes, the second holding
// the heap array's address in its payload, so that a reference to an inline
// element kept past the growth (which the interface forbids) reads a null
// node rather than a pointer. Elements past the size are null nodes.
struct VKTWriterValue::ArrayInfo
    : vkt_internal::Pooled<VKTWriterValue::ArrayInfo> {
  ArrayInfo() {
    for (VKTWriterValue& v : mInline) new (&v) VKTWriterValue;
  }
  ArrayInfo(const ArrayInfo&) = delete;
  ArrayInfo& operator=(const ArrayInfo&) = delete;
  // Only elements that hold a block have anything to let go of.
  ~ArrayInfo() {
    VKTWriterValue* nodes = data();
    for (vkt_u32 i = 0; i < mCapacity; ++i) {
      if (vkt_internal::kBlockTypes >> nodes[i].mType & 1) {
        nodes[i].~VKTWriterValue();
      }
    }
    if (!isInline()) {
      vkt_internal::give_sized(nodes, mCapacity * sizeof(VKTWriterValue));
    }
  }

  static void destroy(ArrayInfo* a) { delete a; }
  VKTWriterValue* data() { return isInline() ? mInline : heap(); }
  const VKTWriterValue* data() const { return isInline() ? mInline : heap(); }
  const VKTWriterValue* begin() const { return data(); }
  const VKTWriterValue* end() const { return data() + mSize; }
  size_t size() const { return mSize; }

  // Grows the array with null elements to `count` elements, if shorter.
  void growTo(size_t count) {
    if (count <= mSize) return;
    if (count > mCapacity) reallocate(count);
    mSize = vkt_u32(count);
  }

 private:
  static const vkt_u32 kInline = 2;
  // A heap array holds at least four, so two means the pair.
  bool isInline() const { return mCapacity == kInline; }
  VKTWriterValue* heap() const {
    VKTWriterValue* p;
    std::memcpy(&p, mInline[1].mShortTail, sizeof p);
    return p;
  }
  void setHeap(VKTWriterValue* p) {
    static_assert(sizeof p <= sizeof mInline[1].mShortTail, "fits a payload");
    for (VKTWriterValue& v : mInline) v.mType = TYPE_NULL;
    std::memcpy(mInline[1].mShortTail, &p, sizeof p);
  }

  // Room for at least `count` elements, the first mSize of them moved.
  void reallocate(size_t count) {
    size_t capacity = 2 * size_t(mCapacity);
    if (capacity < count) capacity = count;
    capacity = vkt_internal::pooled_size(capacity * sizeof(VKTWriterValue)) /
               sizeof(VKTWriterValue);
    // A node is a kind and a pointer or scalar: moving its bytes moves
    // its reference, and the old slots are then left without destruction
    // (the pair's become null, one of them holding the new address).
    VKTWriterValue* data = static_cast<VKTWriterValue*>(
        vkt_internal::take_sized(capacity * sizeof(VKTWriterValue)));
    std::memcpy(static_cast<void*>(data), static_cast<void*>(this->data()),
                mSize * sizeof(VKTWriterValue));
    for (size_t i = mSize; i < capacity; ++i) new (&data[i]) VKTWriterValue;
    if (!isInline()) {
      vkt_internal::give_sized(heap(), mCapacity * sizeof(VKTWriterValue));
    }
    setHeap(data);
    mCapacity = vkt_u32(capacity);
  }

 public:
  vkt_s32 mRefCount = 1;
  vkt_u32 mSize = 0;
  vkt_u32 mCapacity = kInline;
  mutable vkt_u32 mSizeHint = 0;  // writer scratch: the image's likely size

 private:
  union {  // destroyed by ~ArrayInfo, and only when they hold a block
    VKTWriterValue mInline[kInline];
  };
};

namespace vkt_internal {

// The keys of an object in member order, in one block that objects of one
// shape share: records built with the same keys in the same order hold one
// list between them instead of a copy of each key per member.
//
//   KeyList:  head | ends[capacity] | text (each key followed by a NUL)
//
// An object uses the first n keys of its list (n its member count). A list
// changes only by a key appended behind its last one, and only while one
// object alone uses it; an object whose next key differs from what its list
// holds at that place takes a copy of the list's first keys plus the new
// one. Lists are counted atomically, as trees move between threads, and
// come from the heap, so a list may outlive any thread's pools.
struct KeyList {
  std::atomic<vkt_s32> refs{1};
  vkt_u32 count = 0;
  vkt_u32 capacity;          // keys there is room for
  vkt_u32 textCapacity;      // text bytes there is room for, NULs included
  vkt_u32 sortedPrefix = 0;  // how many leading keys are in key order

  // A new list of the first `prefix` keys of `from` (null when prefix is 0)
  // and `key`, with room to grow by doubling. Throws std::length_error
  // when the keys or their text would pass what 32-bit ends can count
  // (no image could hold such an object).
  static KeyList* make(const KeyList* from, vkt_u32 prefix,
                       std::string_view key) {
    const vkt_u32 text = (prefix == 0 ? 0 : from->ends()[prefix - 1]);
    const size_t kMost = 0x7FFFFFFF;  // doubled below, still 32 bits
    if (prefix >= kMost || key.size() >= kMost - text) {
      throw std::length_error("vkt: object keys beyond 2 GiB");
    }
    const size_t keys = std::max<size_t>(4, 2 * (size_t(prefix) + 1));
    const size_t bytes = std::max<size_t>(32, 2 * (text + key.size() + 1));
    KeyList* list =
        new (::operator new(sizeof(KeyList) + keys * sizeof(vkt_u32) + bytes))
            KeyList(vkt_u32(keys), vkt_u32(bytes));
    if (prefix != 0) {
      std::memcpy(list->ends(), from->ends(), prefix * sizeof(vkt_u32));
      std::memcpy(list->text(), from->text(), text);
      list->count = prefix;
      list->sortedPrefix = std::min(prefix, from->sortedPrefix);
    }
    list->push(key);
    return list;
  }
  static void retain(KeyList* list) {
    list->refs.fetch_add(1, std::memory_order_relaxed);
  }
  static void release(KeyList* list) {
    if (list->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      list->~KeyList();
      ::operator delete(list);
    }
  }

  std::string_view key(vkt_u32 i) const {
    const vkt_u32 begin = i == 0 ? 0 : ends()[i - 1];
    return std::string_view(text() + begin, ends()[i] - begin - 1);
  }
  bool hasRoomFor(size_t keySize) const {
    return count < capacity && textUsed() + keySize + 1 <= textCapacity;
  }
  // REQUIRES: hasRoomFor(key.size()).
  void push(std::string_view key) {
    char* p = text() + textUsed();
    if (!key.empty()) std::memcpy(p, key.data(), key.size());
    p[key.size()] = 0;
    if (sortedPrefix == count && (count == 0 || this->key(count - 1) < key)) {
      ++sortedPrefix;
    }
    ends()[count] = textUsed() + vkt_u32(key.size()) + 1;
    ++count;
  }

 private:
  KeyList(vkt_u32 keys, vkt_u32 bytes) : capacity(keys), textCapacity(bytes) {}
  vkt_u32 textUsed() const { return count == 0 ? 0 : ends()[count - 1]; }
  vkt_u32* ends() { return reinterpret_cast<vkt_u32*>(this + 1); }
  const vkt_u32* ends() const {
    return reinterpret_cast<const vkt_u32*>(this + 1);
  }
  char* text() { return reinterpret_cast<char*>(ends() + capacity); }
  const char* text() const {
    return reinterpret_cast<const char*>(ends() + capacity);
  }
};

}  // namespace vkt_internal

// An object: its member count, its key list, and its member nodes, the
// first ones in the block itself (as many as the last object of the same
// first key had, so a record takes one block) and the rest in chunks of
// kFirstChunk nodes, then twice as many each time. A node never moves
// however the object grows, and the
// writer walks the members in key order without reordering them.
//
//   ObjectInfo:  head | node | node | ... (mInline nodes)
//
// Lookups scan a small object and go through a hash index of member places
// once it grows, so building an object of n members takes O(n) expected
// time.
struct VKTWriterValue::ObjectInfo {
  static const size_t kFirstChunk = 8;

  // A new empty object; `firstKey` (empty when unknown) names the shape the
  // block is sized for.
  static ObjectInfo* make(std::string_view firstKey);
  static void destroy(ObjectInfo* o);
  ObjectInfo(const ObjectInfo&) = delete;
  ObjectInfo& operator=(const ObjectInfo&) = delete;

  // The member named `key`, made as a null node if missing.
  VKTWriterValue& at(std::string_view key);

  size_t size() const { return mCount; }
  const vkt_internal::KeyList* keys() const { return mKeys; }
  VKTWriterValue& node(size_t i) const {
    if (i < mInline) return nodes()[i];
    i -= mInline;
    // Chunk k holds kFirstChunk << k nodes, from kFirstChunk * (2^k - 1) on.
    const size_t k = vkt_internal::floor_log2(i / kFirstChunk + 1);
    return mExtra->chunks[k][i - kFirstChunk * ((size_t(1) << k) - 1)];
  }
  // The member places in key order (unsigned bytes, a prefix first) into
  // out[0, size()); a large object keeps the order for the next write.
  void keyOrder(vkt_u32* out) const;

  vkt_s32 mRefCount = 1;
  mutable vkt_u32 mSizeHint = 0;  // writer scratch: the image's likely size

 private:
  // What only a larger object needs.
  struct Extra {
    std::vector<VKTWriterValue*> chunks;
    // The members by key hash; empty while the object is small.
    vkt_internal::OpenIndex index;
    // The key order of the first orderCount members, kept by keyOrder.
    std::vector<vkt_u32> order;
    const vkt_internal::KeyList* orderKeys = nullptr;
    vkt_u32 orderCount = 0;
  };

  explicit ObjectInfo(vkt_u32 inlineNodes) : mInline(inlineNodes) {
    for (vkt_u32 i = 0; i < mInline; ++i) new (&nodes()[i]) VKTWriterValue;
  }
  ~ObjectInfo();
  static size_t blockBytes(vkt_u32 inlineNodes) {
    static_assert(sizeof(ObjectInfo) % alignof(VKTWriterValue) == 0,
                  "the nodes follow the head aligned");
    return sizeof(ObjectInfo) + inlineNodes * sizeof(VKTWriterValue);
  }
  VKTWriterValue* nodes() const {
    return reinterpret_cast<VKTWriterValue*>(const_cast<ObjectInfo*>(this) + 1);
  }
  bool indexed() const { return mExtra != nullptr && !mExtra->index.empty(); }
  vkt_u32 find(std::string_view key);
  void addNodeRoom();
  void addKey(std::string_view key);
  void indexAll();

  vkt_u32 mCount = 0;
  vkt_u32 mInline;                         // nodes in the block
  vkt_internal::KeyList* mKeys = nullptr;  // null while empty
  Extra* mExtra = nullptr;                 // null while small
};
#endif  // VKT_WRITER_BLOCKS_H_
