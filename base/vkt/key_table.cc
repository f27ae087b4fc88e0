// The key table read in place: key string to key tag (walkTrie,
// findSortedKey) and back (getKey), prepared keys, every name decoded into a
// block, and the key hash cache that hinted lookups fill (findKey, which
// chooses among them, is in key_names.cc).
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
#include <cstring>  // memcpy, strcmp, strlen

#include "vkt/format.h"
#include "vkt/key_state.h"
#include "vkt/packed_array.h"

namespace {

// Number of chains of an enabled cache; a hint is a chain index plus 1.
const vkt_u32 HASH_TABLE_SIZE = 307;
// The cached verdict of a key that is not in the table.
const vkt_u32 FALSE_HASH = 0xFFFFFFFF;
const vkt_u32 KEY_HASH_MULTIPLIER = 37;

// The end of a chain, and of the list of entries behind it.
const vkt_u32 NO_ENTRY = 0xFFFFFFFF;

// The trie's three arrays, set up anew by each call from the key section.
struct key_trie {
  unsigned_array base;
  unsigned_array check;
  unsigned_array tail;
};

void setup_key_trie(key_trie* t, const vkt_u8* section) {
  setup_unsigned_array(&t->base, section);
  setup_unsigned_array(&t->check, section + t->base.size);
  setup_unsigned_array(&t->tail, section + t->base.size + t->check.size);
}

// One packed array read at a width fixed when compiling.
template <typename Width>
struct packed {
  vkt_u32 operator[](vkt_u32 i) const {
    return read_packed<Width::value>(p, i);
  }
  const vkt_u8* p;
};

// Calls f(base, check) with readers of the trie's two arrays, each
// specialised for its width, so the walks below run without a switch per
// step.
template <typename F>
auto with_trie_widths(const key_trie& t, F f) {
  return with_width(t.base.valueSize, [&](auto bw) {
    return with_width(t.check.valueSize, [&](auto cw) {
      return f(packed<decltype(bw)>{t.base.values},
               packed<decltype(cw)>{t.check.values});
    });
  });
}

// The way down from the root: a step from x through code c (the terminator
// last) goes to y = base[x] + c and exists when check[y] == x; the step
// through the terminator reaches the leaf, whose base is the key tag.
template <typename Base, typename Check>
bool walk_key(vkt_u32 positions, Base base, Check check, const char* key,
              vkt_u32* tag) {
  vkt_u32 x = 0;
  for (const char* k = key;; ++k) {
    const vkt_u32 c = vkt_u8(*k);
    const vkt_u32 y = base[x] + c;
    if (y >= positions || check[y] != x) return false;
    if (c == 0) {
      *tag = base[y];
      return true;
    }
    x = y;
  }
}

// The way up from the leaf of `keyTag`: emit(byte) for each byte of the key,
// last byte first; answers how many. Each step undoes the code that the way
// down added to the parent's base. A damaged check that loops is cut off
// after as many steps as there are positions.
template <typename Base, typename Check, typename Emit>
vkt_u32 climb_key(vkt_u32 positions, vkt_u32 leaf, Base base, Check check,
                  Emit emit) {
  vkt_u32 x = check[leaf];
  vkt_u32 steps = 0;
  for (; x != 0 && steps < positions; ++steps) {
    const vkt_u32 y = check[x];
    emit(char(vkt_u8(x - base[y])));
    x = y;
  }
  return steps;
}

}  // namespace

// A sorted table (version 1): binary search by strcmp.
bool VKTObject::findSortedKey(const char* key, vkt_u32* result) const {
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

// The walk down the trie; counts the lookup towards the shared names, which
// answer later lookups through their index once they are made.
bool VKTObject::walkTrie(const char* key, vkt_u32* result) const {
  key_trie t;  // the walk down needs no tail, only its count
  setup_unsigned_array(&t.base, mKeyEntity);
  setup_unsigned_array(&t.check, mKeyEntity + t.base.size);
  const bool found = with_trie_widths(t, [&](auto base, auto check) {
    return walk_key(t.base.valueNum, base, check, key, result);
  });
  sharedNames(1, parse_unsigned(mKeyEntity + t.base.size + t.check.size));
  return found;
}

// Version 1 keeps each name as a NUL-terminated string.
const char* VKTObject::sortedKey(vkt_u32 keyTag) const {
  unsigned_array keyOffsetArray;
  setup_unsigned_array(&keyOffsetArray, mKeyOffsetArray);
  if (keyTag >= keyOffsetArray.valueNum) return nullptr;
  return reinterpret_cast<const char*>(mKeyEntity) +
         get_unsigned_array(&keyOffsetArray, keyTag);
}

namespace {

// Rebuilds the name of `keyTag` into *out from a trie already set up (see
// climb_key): filled from the back of a stack buffer in one climb; a name too
// long for it is sized by a first climb and filled by a second. Either way
// the string is allocated once at most, and never grows or reverses. A tag
// beyond the table gives "".
template <typename Base, typename Check>
void rebuild_key(const key_trie& t, Base base, Check check, vkt_u32 keyTag,
                 std::string* out) {
  if (keyTag >= t.tail.valueNum) {
    out->clear();
    return;
  }
  const vkt_u32 leaf = get_unsigned_array(&t.tail, keyTag);
  const vkt_u32 positions = t.check.valueNum;
  char buffer[256];
  char* p = buffer + sizeof(buffer);
  const vkt_u32 length = climb_key(positions, leaf, base, check, [&](char c) {
    if (p != buffer) *--p = c;
  });
  if (length <= sizeof(buffer)) {
    out->assign(p, length);
    return;
  }
  out->resize(length);
  p = &(*out)[0] + length;
  climb_key(positions, leaf, base, check, [&p](char c) { *--p = c; });
}

}  // namespace

void VKTObject::getKeyInto(vkt_u32 keyTag, std::string* out) const {
  if (hasKeyNames()) {
    out->assign(keyName(keyTag));
  } else if (mVersion == 1) {
    const char* s = sortedKey(keyTag);
    out->assign(s != nullptr ? s : "");
  } else {
    key_trie t;
    setup_key_trie(&t, mKeyEntity);
    with_trie_widths(t, [&](auto base, auto check) {
      rebuild_key(t, base, check, keyTag, out);
    });
  }
}

void VKTObject::getKeysInto(const vkt_u8* tags, vkt_u32 width, vkt_u32 count,
                            std::string* out) const {
  if (hasKeyNames() || mVersion == 1) {
    for (vkt_u32 i = 0; i < count; ++i) {
      getKeyInto(read_packed(tags, width, i), &out[i]);
    }
    return;
  }
  // One trie setup and one width dispatch for the whole list.
  key_trie t;
  setup_key_trie(&t, mKeyEntity);
  with_trie_widths(t, [&](auto base, auto check) {
    with_width(width, [&](auto w) {
      for (vkt_u32 i = 0; i < count; ++i) {
        rebuild_key(t, base, check, read_packed<decltype(w)::value>(tags, i),
                    &out[i]);
      }
      return 0;
    });
  });
}

std::string VKTObject::getKey(vkt_u32 keyTag) const {
  std::string result;
  getKeyInto(keyTag, &result);
  return result;
}

// The walk's count goes to the shared block's tally, which may make the
// block now; a walk that still has none gets a rebuild buffer.
VKTMemberIterator::NameSource VKTObject::memberNames(vkt_u32 count,
                                                     bool records) const {
  VKTMemberIterator::NameSource source{nullptr, nullptr};
  if (!records) {
    key_trie t;
    setup_key_trie(&t, mKeyEntity);
    source.names = sharedNames(count, t.tail.valueNum);
  }
  if (source.names == nullptr) source.scratch = newScratch(records);
  return source;
}

vkt_internal::NameScratch* VKTObject::newScratch(bool records) const {
  auto* scratch = new vkt_internal::NameScratch;
  if (records) return scratch;
  key_trie t;
  setup_key_trie(&t, mKeyEntity);
  scratch->base = t.base.values;
  scratch->check = t.check.values;
  scratch->tail = t.tail.values;
  scratch->positions = t.check.valueNum;
  scratch->keys = t.tail.valueNum;
  scratch->baseWidth = vkt_u8(t.base.valueSize <= 4 ? t.base.valueSize : 0);
  scratch->checkWidth = vkt_u8(t.check.valueSize <= 4 ? t.check.valueSize : 0);
  scratch->tailWidth = vkt_u8(t.tail.valueSize <= 4 ? t.tail.valueSize : 0);
  return scratch;
}

vkt_internal::NameScratch* vkt_internal::copy_scratch(
    const NameScratch* scratch) {
  auto* copy = new NameScratch;
  copy->base = scratch->base;
  copy->check = scratch->check;
  copy->tail = scratch->tail;
  copy->positions = scratch->positions;
  copy->keys = scratch->keys;
  copy->baseWidth = scratch->baseWidth;
  copy->checkWidth = scratch->checkWidth;
  copy->tailWidth = scratch->tailWidth;
  return copy;
}

void vkt_internal::free_scratch(NameScratch* scratch) { delete scratch; }

// Climbs into the back of the scratch buffer, and for a longer name sizes it
// in that climb and fills the string in a second one; a tag beyond the table
// gives "".
std::string_view VKTObject::rebuildMemberName(
    vkt_internal::NameScratch* scratch, vkt_u32 keyTag) const {
  const vkt_internal::NameScratch& t = *scratch;
  if (keyTag >= t.keys) return std::string_view();
  const vkt_u32 leaf = read_packed(t.tail, t.tailWidth, keyTag);
  return with_width(t.baseWidth, [&](auto bw) {
    return with_width(t.checkWidth, [&](auto cw) {
      const packed<decltype(bw)> base{t.base};
      const packed<decltype(cw)> check{t.check};
      char* const buffer = scratch->name;
      char* const end = buffer + sizeof(scratch->name);
      char* p = end;
      const vkt_u32 length =
          climb_key(t.positions, leaf, base, check, [&](char c) {
            if (p != buffer) *--p = c;
          });
      if (length <= sizeof(scratch->name)) return std::string_view(p, length);
      std::string& longName = scratch->longName;
      longName.resize(length);
      p = &longName[0] + length;
      climb_key(t.positions, leaf, base, check, [&p](char c) { *--p = c; });
      return std::string_view(longName);
    });
  });
}

VKTKey VKTObject::prepareKey(const char* name) const {
  vkt_u32 tag;
  return findKey(name, &tag, nullptr) ? VKTKey(tag) : VKTKey();
}

// The block's NUL-closed names and their starts, with the trie set up once
// for all of them. The total is summed in 64 bits and must fit the 32-bit
// starts: a table whose names would not (only a hostile image has one;
// verify refuses it) is left undecoded, and walks rebuild each name from the
// table as they do without a block.
bool VKTObject::decodeNames(vkt_internal::NameBlock* block) const {
  std::vector<char>& names = block->bytes;
  std::vector<vkt_u32>& starts = block->offsets;
  starts.assign(1, 0);
  auto add = [&](const char* name, size_t length) {
    if (vkt_u64(names.size()) + length + 1 > 0xFFFFFFFF) return false;
    names.insert(names.end(), name, name + length);
    names.push_back('\0');
    starts.push_back(vkt_u32(names.size()));
    return true;
  };
  if (mVersion == 1) {
    unsigned_array keyOffsetArray;
    setup_unsigned_array(&keyOffsetArray, mKeyOffsetArray);
    for (vkt_u32 tag = 0; tag < keyOffsetArray.valueNum; ++tag) {
      const char* s = sortedKey(tag);
      if (!add(s, std::strlen(s))) return false;
    }
    return true;
  }
  key_trie t;
  setup_key_trie(&t, mKeyEntity);
  starts.reserve(size_t(t.tail.valueNum) + 1);
  std::string name;
  return with_trie_widths(t, [&](auto base, auto check) {
    for (vkt_u32 tag = 0; tag < t.tail.valueNum; ++tag) {
      rebuild_key(t, base, check, tag, &name);
      if (!add(name.data(), name.size())) return false;
    }
    return true;
  });
}

// ---------------------------------------------------------------------------
// Key hash cache: chains of (caller's key pointer, key tag or FALSE_HASH),
// linked by index through one vector of entries in order of registration.
// ---------------------------------------------------------------------------

vkt_internal::KeyState& VKTObject::keyState() {
  if (mKeyState == nullptr) mKeyState = new vkt_internal::KeyState;
  return *mKeyState;
}

void VKTObject::setKeyHashEnabled(bool state) {
  if (!state) {
    if (mKeyState == nullptr) return;
    std::vector<vkt_internal::KeyState::HashChain>().swap(mKeyState->hashTable);
    std::vector<vkt_internal::KeyState::HashEntry>().swap(
        mKeyState->hashEntries);
    mKeyState->hashEnabled = false;
    return;
  }
  // The chains come with the first entry, so that enabling costs little
  // for an object that never sees a hint.
  keyState().hashEnabled = true;
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
  const vkt_u32 hash = calcKeyHash(key, hint);
  const vkt_internal::KeyState& state = *mKeyState;
  if (state.hashTable.empty()) return false;  // no entry yet
  const auto& chain = state.hashTable[hash];
  for (vkt_u32 i = chain.head; i != NO_ENTRY; i = state.hashEntries[i].next) {
    const auto& entry = state.hashEntries[i];
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
  const vkt_u32 hash = calcKeyHash(key, hint);
  // Only an enabled cache registers, and enabling made the state.
  vkt_internal::KeyState& state = *mKeyState;
  if (state.hashTable.empty()) {
    state.hashTable.assign(HASH_TABLE_SIZE, {NO_ENTRY, NO_ENTRY});
  }
  auto& chain = state.hashTable[hash];
  const vkt_u32 index = vkt_u32(state.hashEntries.size());
  state.hashEntries.push_back({key, success ? keyTag : FALSE_HASH, NO_ENTRY});
  if (chain.head == NO_ENTRY) {
    chain.head = index;
  } else {
    state.hashEntries[chain.tail].next = index;
  }
  chain.tail = index;
}
