// The reference-counted payload blocks of VKTWriterValue. Each starts with
// mRefCount, the number of nodes that point at it (1 when made); the last
// node to let go deletes the block and what it owns.
//
// Strings and object members carry their text in the same allocation, right
// behind the block, so a short string or a member costs one small block:
//
//   StringInfo:  refcount | tag | size | text bytes | NUL
//   Member:      value node | key tag | key size | key bytes | NUL
//
// The tags are scratch fields of the writer: a writeImage walk stores there
// where the text stands in its tables, so the second walk needs no lookup.
#ifndef VKT_WRITER_BLOCKS_H_
#define VKT_WRITER_BLOCKS_H_

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "vkt/block_pool.h"
#include "vkt/format.h"
#include "vkt/hash_bytes.h"

namespace vkt_internal {

// An open-addressing index over entries kept in a vector elsewhere: a slot
// holds an entry's index + 1, 0 when free; linear probing over a power of
// two slots, at least twice the entries. One kind serves every lookup of
// the writer; the owner keeps the entries and their hashes.
class OpenIndex {
 public:
  bool empty() const { return mSlots.empty(); }
  void clear() { mSlots.clear(); }
  // Room for `count` entries without growing; the index must be empty.
  void reserve(size_t count) {
    size_t slots = 64;
    while (slots < count * 2) slots *= 2;
    mSlots.assign(slots, 0);
  }

  // Among the entries of hash `h`, the index of the one that same(index)
  // accepts; when there is none, `next` (the index the caller's next entry
  // will have, which is also the number of entries indexed) is recorded
  // and answered. hashOf(index) gives an entry's hash when the slots grow.
  template <typename Same, typename HashOf>
  vkt_u32 findOrAdd(vkt_u64 h, vkt_u32 next, Same same, HashOf hashOf) {
    if ((size_t(next) + 1) * 2 > mSlots.size()) grow(hashOf);
    const size_t mask = mSlots.size() - 1;
    for (size_t i = size_t(h) & mask;; i = (i + 1) & mask) {
      const vkt_u32 slot = mSlots[i];
      if (slot == 0) {
        mSlots[i] = next + 1;
        return next;
      }
      if (same(slot - 1)) return slot - 1;
    }
  }

 private:
  template <typename HashOf>
  void grow(HashOf hashOf) {
    std::vector<vkt_u32> old(mSlots.empty() ? 64 : mSlots.size() * 2, 0);
    old.swap(mSlots);
    const size_t mask = mSlots.size() - 1;
    for (const vkt_u32 slot : old) {
      if (slot == 0) continue;
      size_t i = size_t(hashOf(slot - 1)) & mask;
      while (mSlots[i] != 0) i = (i + 1) & mask;
      mSlots[i] = slot;
    }
  }

  std::vector<vkt_u32> mSlots;
};

// The types whose nodes point at a block.
const vkt_u32 kBlockTypes = 1u << TYPE_STRING | 1u << TYPE_STREAM |
                            1u << TYPE_ARRAY | 1u << TYPE_OBJECT;

}  // namespace vkt_internal

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
// by doubling. Elements past the size are null nodes.
struct VKTWriterValue::ArrayInfo
    : vkt_internal::Pooled<VKTWriterValue::ArrayInfo> {
  ArrayInfo() {
    for (VKTWriterValue& v : mInline) new (&v) VKTWriterValue;
  }
  ArrayInfo(const ArrayInfo&) = delete;
  ArrayInfo& operator=(const ArrayInfo&) = delete;
  // Only elements that hold a block have anything to let go of.
  ~ArrayInfo() {
    const vkt_u32 slots = mData == mInline ? 2 : mCapacity;
    for (vkt_u32 i = 0; i < slots; ++i) {
      if (vkt_internal::kBlockTypes >> mData[i].mType & 1) {
        mData[i].~VKTWriterValue();
      }
    }
    if (mData != mInline) {
      vkt_internal::give_sized(mData, mCapacity * sizeof(VKTWriterValue));
    }
  }

  static void destroy(ArrayInfo* a) { delete a; }
  const VKTWriterValue* begin() const { return mData; }
  const VKTWriterValue* end() const { return mData + mSize; }
  size_t size() const { return mSize; }

  // Grows the array with null elements to `count` elements, if shorter.
  void growTo(size_t count) {
    if (count <= mSize) return;
    if (count > mCapacity) reallocate(count);
    mSize = vkt_u32(count);
  }

 private:
  // Room for at least `count` elements, the first mSize of them moved.
  void reallocate(size_t count) {
    size_t capacity = 2 * size_t(mCapacity);
    if (capacity < count) capacity = count;
    capacity = vkt_internal::pooled_size(capacity * sizeof(VKTWriterValue)) /
               sizeof(VKTWriterValue);
    // A node is a kind and a pointer or scalar: moving its bytes moves
    // its reference, and the old slots are then left without destruction
    // (the inline ones are made null for their own destructors).
    VKTWriterValue* data = static_cast<VKTWriterValue*>(
        vkt_internal::take_sized(capacity * sizeof(VKTWriterValue)));
    std::memcpy(static_cast<void*>(data), static_cast<void*>(mData),
                mSize * sizeof(VKTWriterValue));
    for (size_t i = mSize; i < capacity; ++i) new (&data[i]) VKTWriterValue;
    if (mData != mInline) {
      vkt_internal::give_sized(mData, mCapacity * sizeof(VKTWriterValue));
    } else {
      for (VKTWriterValue& v : mInline) new (&v) VKTWriterValue;
    }
    mData = data;
    mCapacity = vkt_u32(capacity);
  }

 public:
  vkt_s32 mRefCount = 1;
  vkt_u32 mSize = 0;
  vkt_u32 mCapacity = 2;
  mutable vkt_u32 mSizeHint = 0;  // writer scratch: the image's likely size
  VKTWriterValue* mData = mInline;
  union {  // destroyed by ~ArrayInfo, and only when they hold a block
    VKTWriterValue mInline[2];
  };
};

// One member of an object: its node and its key, in one stretch of the
// object's member pages, so the node's address stays put however the object
// grows or is reordered.
struct VKTWriterValue::Member {
  explicit Member(std::string_view key) : mKeySize(vkt_u32(key.size())) {
    char* p = reinterpret_cast<char*>(this + 1);
    if (!key.empty()) std::memcpy(p, key.data(), key.size());
    p[key.size()] = 0;
  }
  // Bytes a member with a key of `keySize` bytes takes in a page: the block,
  // the key and its NUL, rounded up to keep the next block aligned.
  static size_t bytesFor(size_t keySize) {
    const size_t n = sizeof(Member) + keySize + 1;
    return (n + alignof(Member) - 1) & ~(alignof(Member) - 1);
  }
  std::string_view key() const {
    return std::string_view(reinterpret_cast<const char*>(this + 1), mKeySize);
  }
  vkt_u64 keyHash() const {
    return vkt_internal::hash_bytes(this + 1, mKeySize);
  }

  VKTWriterValue mValue;
  mutable vkt_u32 mKeyTag = 0;  // writer scratch: the key's table entry
  vkt_u32 mKeySize;
};

// Members in a vector of pointers, sorted by key (unsigned bytes, a prefix
// first) whenever the writer walks them; appends in key order keep it
// sorted, others mark it for one sort before the next walk. Lookups scan a
// small object and go through a hash index of member pointers once it
// grows, so building an object of n members takes O(n) expected time.
//
// The members themselves lie one after another in pages the object owns
// (members are never removed, so a page is only freed with the object). A
// new object sizes its first page and its vector by the last object that
// began with the same key, so records of one shape take one page each.
struct VKTWriterValue::ObjectInfo
    : vkt_internal::Pooled<VKTWriterValue::ObjectInfo> {
  ObjectInfo() = default;
  ObjectInfo(const ObjectInfo&) = delete;
  ObjectInfo& operator=(const ObjectInfo&) = delete;
  ~ObjectInfo();
  static void destroy(ObjectInfo* o) { delete o; }

  // The member named `key`, made as a null node if missing.
  VKTWriterValue& at(std::string_view key);
  // Brings the members into key order (the writer calls it; the tree does
  // not change, only the order in which it is walked).
  void sort() const;

  // The member pointers: a vector of exactly the room reserve() asks, in a
  // pooled block.
  class MemberList {
   public:
    MemberList() = default;
    MemberList(const MemberList&) = delete;
    MemberList& operator=(const MemberList&) = delete;
    ~MemberList() {
      if (mData != nullptr) vkt_internal::give_sized(mData, bytes(mCapacity));
    }
    size_t size() const { return mSize; }
    bool empty() const { return mSize == 0; }
    size_t capacity() const { return mCapacity; }
    Member** begin() const { return mData; }
    Member** end() const { return mData + mSize; }
    Member*& operator[](size_t i) const { return mData[i]; }
    Member* back() const { return mData[mSize - 1]; }
    // Room for `count` pointers; throws with the list unchanged.
    void reserve(size_t count) {
      if (count <= mCapacity) return;
      count = vkt_internal::pooled_size(bytes(count)) / sizeof(Member*);
      Member** data =
          static_cast<Member**>(vkt_internal::take_sized(bytes(count)));
      if (mSize != 0) std::memcpy(data, mData, mSize * sizeof(Member*));
      if (mData != nullptr) vkt_internal::give_sized(mData, bytes(mCapacity));
      mData = data;
      mCapacity = vkt_u32(count);
    }
    // REQUIRES: room reserved.
    void push_back(Member* m) { mData[mSize++] = m; }

   private:
    static size_t bytes(size_t count) { return count * sizeof(Member*); }
    Member** mData = nullptr;
    vkt_u32 mSize = 0;
    vkt_u32 mCapacity = 0;
  };

  vkt_s32 mRefCount = 1;
  mutable vkt_u32 mSizeHint = 0;  // writer scratch: the image's likely size
  MemberList mMembers;
  // The members by key hash, absent while the object is small; rebuilt
  // when a sort moves the members.
  mutable std::unique_ptr<vkt_internal::OpenIndex> mIndex;

 private:
  // A page: the next page's address and the page's whole size, then
  // members.
  struct Page {
    Page* next;
    size_t bytes;
  };
  // Room for a member of `bytes` bytes in the last page, or a new page.
  void* allocate(size_t bytes, std::string_view firstKey);
  Member* addMember(std::string_view key);
  void indexAll() const;

  bool indexed() const { return mIndex != nullptr && !mIndex->empty(); }

  Page* mPages = nullptr;  // most recent first
  vkt_u32 mPageBytes = 0;  // member bytes the newest page holds
  vkt_u32 mPageFree = 0;   // of which unused, at its end
  vkt_u32 mUsed = 0;       // member bytes in all pages

 public:
  mutable bool mSorted = true;  // last here, where it packs with mUsed
};

#endif  // VKT_WRITER_BLOCKS_H_
