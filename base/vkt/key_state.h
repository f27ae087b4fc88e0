// What a VKTObject adds to its key table: the key cache that lookups with a
// hint fill, and the block of decoded names with their index. The object
// owns each once it is made; the header shows only the pointers and the name
// block's inline view.
#ifndef VKT_KEY_STATE_H_
#define VKT_KEY_STATE_H_

#include <vector>

#include "vkttypes.h"

namespace vkt_internal {

// Every key name back to back, each closed by a NUL, and where each begins
// (key tag order, one extra entry for the end); with the name index once one
// is built: slots of (name hash's high half, key tag + 1), a power of two of
// them, at most half full, 0 marking a free slot.
struct NameBlock {
  std::vector<char> names;
  std::vector<vkt_u32> starts;
  std::vector<vkt_u64> index;
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
