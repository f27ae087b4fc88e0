// What a VKTObject adds to its key table: the key cache that lookups with a
// hint fill, and the block of decoded names with their index. The object
// owns each once it is made; the header shows only the pointers and the name
// block's inline view.
#ifndef VKT_KEY_STATE_H_
#define VKT_KEY_STATE_H_

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "vkttypes.h"

namespace vkt_internal {

// Every key name back to back, each closed by a NUL, and where each begins
// (key tag order, one extra entry for the end), which the view points at
// once they are filled; with the name index once one is built: slots of
// (name hash's high half, key tag + 1), a power of two of them, at most half
// full, 0 marking a free slot.
struct NameBlock : NameView {
  std::vector<char> bytes;
  std::vector<vkt_u32> offsets;
  std::vector<vkt_u64> index;
  // What the view's guesses point at.
  std::unique_ptr<std::atomic<vkt_u32>[]> guessSlots;
  // Records `tag` as the name found at `key`'s address.
  void remember(const char* key, vkt_u32 tag) const {
    recentSlot(key).store(vkt_u64(starts[tag]) << 32 | (tag + 1),
                          std::memory_order_relaxed);
  }
  void setView() {
    names = bytes.data();
    starts = offsets.data();
    count = vkt_u32(offsets.size() - 1);
  }
};

// The object keeps its blocks by their views; every view it keeps is a
// block's.
inline const NameBlock* block_of(const NameView* view) {
  return static_cast<const NameBlock*>(view);
}

// What a member walk rebuilds names with while no name block serves it: the
// key table's arrays, read once when the walk begins, so that each step only
// climbs from the name's leaf, and the name itself, in place up to the
// buffer's size, else in the string. Each copy of an iterator has its own.
struct NameScratch {
  const vkt_u8* base = nullptr;
  const vkt_u8* check = nullptr;
  const vkt_u8* tail = nullptr;
  vkt_u32 positions = 0;  // of base and check
  vkt_u32 keys = 0;       // of tail
  vkt_u8 baseWidth = 0, checkWidth = 0, tailWidth = 0;
  char name[48];
  std::string longName;
};

// The key cache that lookups with a hint fill.
struct KeyState {
  // One cache entry; a chain is a run of entries linked by `next`.
  struct HashEntry {
    const char* key;  // the caller's pointer; the string is not copied
    vkt_u32 value;    // key tag, or the absent key's mark
    vkt_u32 next;     // index of the chain's next entry, or the end mark
  };
  // First and last entry of one chain, the end mark while it is empty.
  struct HashChain {
    vkt_u32 head;
    vkt_u32 tail;
  };

  // One chain per hash once it holds an entry, empty before and while it is
  // off. Lookups with a hint change both vectors although the object is
  // const.
  bool hashEnabled = false;
  std::vector<HashChain> hashTable;
  std::vector<HashEntry> hashEntries;
};

}  // namespace vkt_internal

#endif  // VKT_KEY_STATE_H_
