// The members of an object block: found by a scan or a hash index, their
// nodes in the block and in chunks the object owns, their keys in a key
// list shared with the objects of the same shape.
#include <algorithm>

#include "vkt/writer_blocks.h"

using vkt_internal::hash_bytes;
using vkt_internal::KeyList;

namespace {

// An object starts indexing its members once a scan would cost more than a
// hash; the index keeps at least half of its slots free.
const size_t kIndexFrom = 16;

// Nodes in the block of an object made without a hint, and at most with
// one (a block of 1 KiB), so that an object sharing its first key with a
// large one wastes little.
const size_t kFirstNodes = 4;
const size_t kMaxFirstNodes = 62;

// A key list longer than this is never offered to the next object: a wide
// object's keys are seldom repeated, and the offer would keep them alive.
const vkt_u32 kMostHintedKeys = 64;

// The key list of the last object begun with a given first key, per thread
// (as trees are built), so that the next object of that shape follows it.
// A slot holds a reference; collisions only cost a copy of the keys.
//
// The slots are a plain thread-local array, readable while any of the
// thread's destructors run; a closer, made with the thread's first use,
// lets go of them when the thread ends. An object built after that (by
// another thread-local's destructor, or a static one's at exit) finds empty
// slots and offers nothing, as the block pools do once their thread ends.
class ShapeHints {
 public:
  static const size_t kSlots = 64;

  static KeyList*& slot(std::string_view firstKey) {
    // Not reached again once the closer is gone: a thread-local's
    // definition may not run after its destructor has.
    if (!vkt_internal::thread_closed<ShapeHints>()) {
      thread_local Closer closer;
      (void)closer;
    }
    size_t h = firstKey.size() * 31;
    if (!firstKey.empty()) {
      h += vkt_u8(firstKey[0]) * 7 + vkt_u8(firstKey.back());
    }
    return slots()[h % kSlots];
  }
  // Offers `list` in `slot`, in place of what was there.
  static void offer(KeyList*& slot, KeyList* list) {
    if (slot == list || vkt_internal::thread_closed<ShapeHints>()) return;
    KeyList::retain(list);
    if (slot != nullptr) KeyList::release(slot);
    slot = list;
  }

 private:
  struct Closer {
    ~Closer() {
      vkt_internal::thread_closed<ShapeHints>() = true;
      for (size_t i = 0; i < kSlots; ++i) {
        if (slots()[i] != nullptr) KeyList::release(slots()[i]);
        slots()[i] = nullptr;
      }
    }
  };
  static KeyList** slots() {
    thread_local KeyList* slots[kSlots] = {};
    return slots;
  }
};

// True when no object but the caller uses `list`: then it may grow in
// place. Other threads only ever drop references, never take one, so
// a count seen this low stays this low.
bool only_user(const KeyList* list, const KeyList* hinted) {
  const vkt_s32 refs = list->refs.load(std::memory_order_acquire);
  return refs == 1 || (refs == 2 && hinted == list);
}

}  // namespace

VKTWriterValue::ObjectInfo* VKTWriterValue::ObjectInfo::make(
    std::string_view firstKey) {
  size_t nodes = kFirstNodes;
  if (!firstKey.empty()) {
    const KeyList* hint = ShapeHints::slot(firstKey);
    if (hint != nullptr && hint->key(0) == firstKey) {
      nodes = std::min<size_t>(std::max<size_t>(nodes, hint->count),
                               kMaxFirstNodes);
    }
  }
  // The block takes the whole of the pooled size class it gets.
  const size_t bytes = vkt_internal::pooled_size(blockBytes(vkt_u32(nodes)));
  void* p = vkt_internal::take_sized(bytes);
  return new (p) ObjectInfo(
      vkt_u32((bytes - sizeof(ObjectInfo)) / sizeof(VKTWriterValue)));
}

void VKTWriterValue::ObjectInfo::destroy(ObjectInfo* o) {
  const size_t bytes = vkt_internal::pooled_size(blockBytes(o->mInline));
  o->~ObjectInfo();
  vkt_internal::give_sized(o, bytes);
}

// Only nodes that hold a block have anything to let go of; nodes past the
// count were never handed out and are null.
VKTWriterValue::ObjectInfo::~ObjectInfo() {
  for (vkt_u32 i = 0; i < mCount; ++i) {
    VKTWriterValue& v = node(i);
    if (vkt_internal::kBlockTypes >> v.mType & 1) v.~VKTWriterValue();
  }
  if (mKeys != nullptr) KeyList::release(mKeys);
  if (mExtra != nullptr) {
    for (size_t k = 0; k < mExtra->chunks.size(); ++k) {
      vkt_internal::give_sized(mExtra->chunks[k],
                               (kFirstChunk << k) * sizeof(VKTWriterValue));
    }
    delete mExtra;
  }
}

// Room for one more node; throws with the object unchanged.
void VKTWriterValue::ObjectInfo::addNodeRoom() {
  const size_t chunks = mExtra != nullptr ? mExtra->chunks.size() : 0;
  if (mCount < mInline + kFirstChunk * ((size_t(1) << chunks) - 1)) return;
  if (mExtra == nullptr) mExtra = new Extra;
  mExtra->chunks.reserve(chunks + 1);
  const size_t nodes = kFirstChunk << chunks;
  auto* chunk = static_cast<VKTWriterValue*>(
      vkt_internal::take_sized(nodes * sizeof(VKTWriterValue)));
  for (size_t i = 0; i < nodes; ++i) new (&chunk[i]) VKTWriterValue;
  mExtra->chunks.push_back(chunk);  // reserved: cannot throw
}

// Puts `key` at place mCount of the key list: follows the list when it
// already holds that key there, grows it in place when this object alone
// uses it, and otherwise copies its first keys into a list of our own.
// Throws with the object unchanged.
void VKTWriterValue::ObjectInfo::addKey(std::string_view key) {
  const vkt_u32 at = mCount;
  KeyList*& hint = ShapeHints::slot(at == 0 ? key : mKeys->key(0));
  if (mKeys == nullptr && hint != nullptr && hint->key(0) == key) {
    KeyList::retain(hint);
    mKeys = hint;
    return;
  }
  if (mKeys != nullptr && mKeys->count > at && mKeys->key(at) == key) return;
  if (mKeys != nullptr && mKeys->count == at && mKeys->hasRoomFor(key.size()) &&
      only_user(mKeys, hint)) {
    mKeys->push(key);
  } else {
    KeyList* fresh = KeyList::make(mKeys, at, key);
    if (mKeys != nullptr) KeyList::release(mKeys);
    mKeys = fresh;
  }
  if (mKeys->count <= kMostHintedKeys) {
    ShapeHints::offer(hint, mKeys);
  } else if (hint == mKeys) {
    hint = nullptr;
    KeyList::release(mKeys);
  }
}

vkt_u32 VKTWriterValue::ObjectInfo::find(std::string_view key) {
  if (!indexed()) {
    for (vkt_u32 i = 0; i < mCount; ++i) {
      if (mKeys->key(i) == key) return i;
    }
    return mCount;
  }
  return mExtra->index.findOrAdd(
      hash_bytes(key.data(), key.size()), mCount,
      [&](vkt_u32 i) { return mKeys->key(i) == key; },
      [this](vkt_u32 i) {
        const std::string_view k = mKeys->key(i);
        return hash_bytes(k.data(), k.size());
      });
}

VKTWriterValue& VKTWriterValue::ObjectInfo::at(std::string_view key) {
  const vkt_u32 found = find(key);
  if (found != mCount) return node(found);
  try {
    addNodeRoom();
    addKey(key);
  } catch (...) {
    // The index has a slot for the member that did not come: rebuilt, or
    // left empty (the object is then scanned) if that fails too.
    if (indexed()) indexAll();
    throw;
  }
  ++mCount;
  if (!indexed() && mCount == kIndexFrom) indexAll();
  return node(mCount - 1);
}

// All slots are made first, so a failed allocation leaves the index empty
// rather than missing members.
void VKTWriterValue::ObjectInfo::indexAll() {
  if (mExtra == nullptr) mExtra = new Extra;
  vkt_internal::OpenIndex& index = mExtra->index;
  index.clear();
  index.reserve(mCount);
  auto hashOf = [this](vkt_u32 i) {
    const std::string_view k = mKeys->key(i);
    return hash_bytes(k.data(), k.size());
  };
  for (vkt_u32 i = 0; i < mCount; ++i) {
    index.findOrAdd(
        hashOf(i), i, [](vkt_u32) { return false; }, hashOf);
  }
}

void VKTWriterValue::ObjectInfo::keyOrder(vkt_u32* out) const {
  if (mExtra != nullptr && mExtra->orderKeys == mKeys &&
      mExtra->orderCount == mCount) {
    std::copy(mExtra->order.begin(), mExtra->order.end(), out);
    return;
  }
  for (vkt_u32 i = 0; i < mCount; ++i) out[i] = i;
  if (mCount != 0 && mCount > mKeys->sortedPrefix) {
    // Keys are unique, so any sort gives the one order.
    std::sort(out, out + mCount, [this](vkt_u32 a, vkt_u32 b) {
      return mKeys->key(a) < mKeys->key(b);
    });
  }
  if (mExtra != nullptr) {  // the tree is one writer's while it is written
    mExtra->order.assign(out, out + mCount);
    mExtra->orderKeys = mKeys;
    mExtra->orderCount = mCount;
  }
}
