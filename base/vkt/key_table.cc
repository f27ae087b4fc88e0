// The key table read in place: key string to key tag (findKey) and back
// (getKey), with the key hash cache in front of findKey.
//
// Double-array form (every version but 1): three packed arrays, back to back.
//
//   base  | check | tail
//
// A step from position x through code c (a key byte, 0 for the terminator)
// goes to y = base[x] + c and exists when check[y] == x. A leaf, reached
// through the terminator, holds its key tag in base; tail maps a key tag to
// its leaf so that getKey can climb check back to the root (position 0).
//
// Sorted form (version 1): keyOffsetArray gives, per key tag, the offset of a
// NUL-terminated key in the key entity; keys ascend in strcmp order.
#include <algorithm>  // reverse
#include <cstring>    // strcmp

#include "vkt/format.h"
#include "vkt/packed_array.h"

namespace {

// Number of chains of an enabled cache; a hint is a chain index plus 1.
const vkt_u32 HASH_TABLE_SIZE = 307;
// The cached verdict of a key that is not in the table.
const vkt_u32 FALSE_HASH = 0xFFFFFFFF;
const vkt_u32 KEY_HASH_MULTIPLIER = 37;

struct double_array {
  unsigned_array base;
  unsigned_array check;
};

void setup_double_array(double_array* da, const vkt_u8* section) {
  setup_unsigned_array(&da->base, section);
  setup_unsigned_array(&da->check, section + da->base.size);
}

}  // namespace

bool VKTObject::findKey(const char* key, vkt_u32* result, vkt_u32* hint) const {
  if (mVersion == 1) {
    unsigned_array keyOffsetArray;
    setup_unsigned_array(&keyOffsetArray, mKeyOffsetArray);
    vkt_u32 begin = 0;
    vkt_u32 end = keyOffsetArray.valueNum;
    while (begin < end) {
      const vkt_u32 mid = (begin + end) / 2;
      const char* s = reinterpret_cast<const char*>(mKeyEntity) +
                      get_unsigned_array(&keyOffsetArray, mid);
      const int comp = std::strcmp(key, s);
      if (comp == 0) {
        *result = mid;
        return true;
      }
      if (comp > 0) {
        begin = mid + 1;
      } else {
        end = mid;
      }
    }
    return false;
  }

  const bool cached = hint != nullptr && !mKeyHashTable.empty();
  if (cached) {
    bool success;
    if (findKeyTagFromHashTable(key, result, &success, hint)) return success;
  }

  double_array da;
  setup_double_array(&da, mKeyEntity);
  vkt_u32 x = 0;
  for (const char* k = key;; ++k) {
    const vkt_u32 c = vkt_u8(*k);
    const vkt_u32 y = get_unsigned_array(&da.base, x) + c;
    if (y >= da.base.valueNum || get_unsigned_array(&da.check, y) != x) break;
    if (c == 0) {  // through the terminator: y is the leaf
      *result = get_unsigned_array(&da.base, y);
      if (cached) registerKeyTagToHashTable(key, *result, true, hint);
      return true;
    }
    x = y;
  }
  if (cached) registerKeyTagToHashTable(key, 0, false, hint);
  return false;
}

std::string VKTObject::getKey(vkt_u32 keyTag) const {
  if (mVersion == 1) {
    unsigned_array keyOffsetArray;
    setup_unsigned_array(&keyOffsetArray, mKeyOffsetArray);
    if (keyTag >= keyOffsetArray.valueNum) return std::string();
    return std::string(reinterpret_cast<const char*>(mKeyEntity) +
                       get_unsigned_array(&keyOffsetArray, keyTag));
  }

  double_array da;
  setup_double_array(&da, mKeyEntity);
  unsigned_array tail;
  setup_unsigned_array(&tail, mKeyEntity + da.base.size + da.check.size);
  std::string result;
  if (keyTag >= tail.valueNum) return result;
  // Climb from the leaf's parent to the root; each step undoes the code that
  // the way down added to the parent's base. A damaged check that loops is
  // cut off after as many steps as there are positions.
  vkt_u32 x = get_unsigned_array(&da.check, get_unsigned_array(&tail, keyTag));
  for (vkt_u32 steps = 0; x != 0 && steps < da.check.valueNum; ++steps) {
    const vkt_u32 y = get_unsigned_array(&da.check, x);
    result.push_back(char(vkt_u8(x - get_unsigned_array(&da.base, y))));
    x = y;
  }
  std::reverse(result.begin(), result.end());
  return result;
}

// ---------------------------------------------------------------------------
// Key hash cache: chains of (caller's key pointer, key tag or FALSE_HASH).
// ---------------------------------------------------------------------------

void VKTObject::setKeyHashEnabled(bool state) {
  if (!state) {
    mKeyHashTable.clear();
    mKeyHashTable.shrink_to_fit();
  } else if (mKeyHashTable.empty()) {
    mKeyHashTable.resize(HASH_TABLE_SIZE);
  }
}

vkt_u32 VKTObject::calcKeyHash(const char* key, vkt_u32* hint) const {
  // A hint out of range (never one this function stored) is recomputed
  // rather than trusted as an index.
  if (*hint != 0 && *hint <= HASH_TABLE_SIZE) return *hint - 1;
  vkt_u32 hash = 0;
  for (const char* k = key; *k != '\0'; ++k) {
    hash = hash * KEY_HASH_MULTIPLIER + vkt_u8(*k);
  }
  hash %= HASH_TABLE_SIZE;
  *hint = hash + 1;
  return hash;
}

bool VKTObject::findKeyTagFromHashTable(const char* key, vkt_u32* keyTag,
                                        bool* success, vkt_u32* hint) const {
  const key_hash_entry_list& hashEntryList =
      mKeyHashTable[calcKeyHash(key, hint)];
  for (const KeyHashEntry& entry : hashEntryList) {
    // The same pointer spares the string comparison.
    if (entry.key == key || std::strcmp(entry.key, key) == 0) {
      *keyTag = entry.value;
      *success = entry.value != FALSE_HASH;
      return true;
    }
  }
  return false;
}

void VKTObject::registerKeyTagToHashTable(const char* key, vkt_u32 keyTag,
                                          bool success, vkt_u32* hint) const {
  key_hash_entry_list& hashEntryList = mKeyHashTable[calcKeyHash(key, hint)];
  hashEntryList.push_back(KeyHashEntry{key, success ? keyTag : FALSE_HASH});
}
