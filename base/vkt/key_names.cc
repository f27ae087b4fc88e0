// The block of decoded key names and the name index over it.
//
// The block holds every name once, NUL-closed, in key tag order, so that
// member walks hand out names without climbing the trie; the index hashes a
// name to its key tag, so that a lookup by plain name reads the name once
// instead of stepping the trie byte by byte. decodeKeyNames and
// buildKeyIndex make them on request. Without a request, walks and lookups
// count the names they resolve through the trie; the one that passes the
// table's size makes both and publishes them with one atomic store, so that
// the work spent before is about what the block costs, and later walks and
// lookups, on any thread, use it.
#include <cstdint>  // uintptr_t
#include <cstring>  // memcpy, strcmp, strlen

#include "vkt/format.h"
#include "vkt/hash_bytes.h"
#include "vkt/key_state.h"

namespace {

// Loads of 8 and 4 bytes, whatever the alignment, for comparing names.
vkt_u64 load64(const char* p) {
  vkt_u64 v;
  std::memcpy(&v, p, sizeof(v));
  return v;
}
vkt_u64 load32(const char* p) {
  vkt_u32 v;
  std::memcpy(&v, p, sizeof(v));
  return v;
}

// Whether the `length` bytes at `a` and `b` are equal: whole words, then one
// word or half-word that overlaps the last, so that a name costs a few loads
// and no call. Reads nothing outside either run.
inline bool same_bytes(const char* a, const char* b, size_t length) {
  if (length >= 8) {
    size_t i = 0;
    for (; i + 8 < length; i += 8) {
      if (load64(a + i) != load64(b + i)) return false;
    }
    return load64(a + length - 8) == load64(b + length - 8);
  }
  if (length >= 4) {
    return load32(a) == load32(b) &&
           load32(a + length - 4) == load32(b + length - 4);
  }
  for (size_t i = 0; i < length; ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

std::string_view name_of(const vkt_internal::NameBlock& block, vkt_u32 tag) {
  const vkt_u32 begin = block.starts[tag];
  return std::string_view(block.names + begin,
                          block.starts[tag + 1] - begin - 1);
}

// Indexes the names of `block`: slots of (hash's high half, tag + 1), at
// most half full. A name spelled with a NUL inside (a damaged table) is one
// that no lookup reaches, and a name listed twice one that the trie reaches
// under one tag only: such a table keeps no index, and lookups walk it.
void index_names(vkt_internal::NameBlock* block) {
  const vkt_u32 count = block->count;
  size_t slots = 8;
  while (slots < size_t(count) * 2) slots *= 2;
  std::vector<vkt_u64> index(slots, 0);
  const size_t mask = slots - 1;
  for (vkt_u32 tag = 0; tag < count; ++tag) {
    const std::string_view name = name_of(*block, tag);
    if (name.find('\0') != std::string_view::npos) return;
    const vkt_u64 h = vkt_internal::hash_bytes(name.data(), name.size());
    size_t i = h & mask;
    for (; index[i] != 0; i = (i + 1) & mask) {
      if (name_of(*block, vkt_u32(index[i]) - 1) == name) return;
    }
    index[i] = (h >> 32) << 32 | (vkt_u64(tag) + 1);
  }
  // Both made before either is kept: lookups take an index to come with
  // its guesses.
  std::unique_ptr<std::atomic<vkt_u32>[]> guesses(
      new std::atomic<vkt_u32>[count]());
  block->guessSlots.swap(guesses);
  block->guesses = block->guessSlots.get();
  block->index.swap(index);
}

}  // namespace

// The block made by a request is published like one made by a walk, so
// that both find it the same way; the inline view serves the member walk's
// inline step.
void VKTObject::decodeKeyNames() {
  if (hasKeyNames()) return;
  const vkt_internal::NameView* block = mNames.load(std::memory_order_acquire);
  if (block == nullptr) {
    auto* made = new vkt_internal::NameBlock;
    if (!decodeNames(made)) {
      delete made;
      return;
    }
    made->setView();
    mNames.store(made, std::memory_order_release);
    block = made;
  }
  mDecodedNames = block;
}

std::string_view VKTObject::keyName(vkt_u32 keyTag) const {
  const vkt_internal::NameView& block = *mDecodedNames;
  return decodedName(block.names, block.starts, block.count, keyTag);
}

// No other call runs beside this one, so the published block may grow its
// index in place.
void VKTObject::buildKeyIndex() {
  decodeKeyNames();
  if (!hasKeyNames() || hasKeyIndex()) return;
  index_names(const_cast<vkt_internal::NameBlock*>(
      vkt_internal::block_of(mNames.load(std::memory_order_relaxed))));
}

bool VKTObject::hasKeyIndex() const {
  const vkt_internal::NameView* block = mNames.load(std::memory_order_acquire);
  return block != nullptr && !vkt_internal::block_of(block)->index.empty();
}

// The count is kept with plain loads and stores: a count lost between two
// threads only delays the block, and two threads that both pass the size
// both make one, of which the first published stays.
const vkt_internal::NameBlock* VKTObject::sharedNames(vkt_u32 resolved,
                                                      vkt_u32 keys) const {
  const vkt_internal::NameView* block = mNames.load(std::memory_order_acquire);
  if (block != nullptr || resolved == 0) return vkt_internal::block_of(block);
  const vkt_u64 before = mResolvedNames.load(std::memory_order_relaxed);
  mResolvedNames.store(before + resolved, std::memory_order_relaxed);
  if (before >= keys || before + resolved < keys) return nullptr;
  auto* made = new vkt_internal::NameBlock;
  if (!decodeNames(made)) {
    delete made;
    return nullptr;
  }
  made->setView();
  index_names(made);
  const vkt_internal::NameView* expected = nullptr;
  if (!mNames.compare_exchange_strong(expected, made,
                                      std::memory_order_acq_rel)) {
    delete made;
    return vkt_internal::block_of(expected);
  }
  return made;
}

// A program names members through a few strings it keeps (literals, a
// list of fields), so the name at one address is likely the one found there
// last time: one strcmp with that name's text confirms it, without the
// length and the hash. Each slot is only a guess, checked against the text,
// so a stale or overwritten one costs that compare and nothing else.
inline bool VKTObject::findIndexedKey(const vkt_internal::NameBlock& block,
                                      const char* key, vkt_u32* result) const {
  if (block.recentTag(key, result)) return true;
  const size_t length = std::strlen(key);
  const vkt_u64 h = vkt_internal::hash_bytes(key, length);
  const std::vector<vkt_u64>& index = block.index;
  const size_t mask = index.size() - 1;
  for (size_t i = h & mask;; i = (i + 1) & mask) {
    const vkt_u64 slot = index[i];
    if (slot == 0) return false;
    if ((slot >> 32) != (h >> 32)) continue;
    const vkt_u32 tag = vkt_u32(slot) - 1;
    const vkt_u32 begin = block.starts[tag];
    if (block.starts[tag + 1] - begin - 1 == length &&
        same_bytes(block.names + begin, key, length)) {
      *result = tag;
      block.remember(key, tag);
      return true;
    }
  }
}

// A lookup by plain name: the key cache for a hinted lookup while the cache
// is on, else the index when there is one (a request or earlier lookups made
// it), else the table.
bool VKTObject::findKey(const char* key, vkt_u32* result, vkt_u32* hint,
                        std::atomic<vkt_u32>** guess) const {
  const vkt_internal::NameBlock* names =
      vkt_internal::block_of(mNames.load(std::memory_order_acquire));
  const bool indexed = names != nullptr && !names->index.empty();
  const bool cached = hint != nullptr && mKeyState != nullptr &&
                      mKeyState->hashEnabled && mVersion != 1;
  if (indexed && !cached) {
    if (!findIndexedKey(*names, key, result)) return false;
    if (guess != nullptr) *guess = &names->guesses[*result];
    return true;
  }
  if (mVersion == 1) return findSortedKey(key, result);
  if (cached) {
    bool success;
    if (findKeyTagFromHashTable(key, result, &success, hint)) return success;
  }
  vkt_u32 tag = 0;
  const bool found =
      indexed ? findIndexedKey(*names, key, &tag) : walkTrie(key, &tag);
  if (found) *result = tag;
  if (cached) registerKeyTagToHashTable(key, tag, found, hint);
  return found;
}
