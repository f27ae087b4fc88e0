// A walk through every public read operation of an image, in every way it
// can be opened: what the damage sweep and the fuzzers run on each image that
// verify accepted, so that the sanitizers see every byte the reader touches.
// Extend walk_value when the reader gains an operation.
#ifndef VKT_TESTS_FULL_WALK_H_
#define VKT_TESTS_FULL_WALK_H_

#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>

#include "vkt.h"
#include "vkt/streams.h"  // VKTMemoryReadStream, for the stream-backed open

namespace full_walk {

// Folds every byte read into a sum, so that nothing is optimised away.
inline vkt_u64 touch(const void* p, size_t n) {
  vkt_u64 sum = 0;
  for (size_t i = 0; i < n; ++i) sum += static_cast<const vkt_u8*>(p)[i];
  return sum;
}

struct ValueHash {
  size_t operator()(const VKTValue& v) const { return v.getHash(); }
};

// What one walk keeps: containers already walked, and member names, which
// the key cache points at until it is turned off.
struct WalkState {
  std::unordered_set<VKTValue, ValueHash> seen;
  std::list<vkt_members> names;
  // One prepared key per name for the whole walk, so that each carries the
  // position where the object before held it into the next.
  std::map<std::string, VKTKey> keys;
};

inline vkt_u64 walk_value(VKTValue v, WalkState* state, int depth) {
  vkt_u64 sum = v.type() + v.asBool() + vkt_u64(v.asInt()) +
                vkt_u64(v.asLongInt()) + vkt_u64(v.asFloat() != 0) +
                vkt_u64(v.asDouble() != 0) + v.getHash() % 2;
  const char* s = v.asString();
  sum += touch(s, std::strlen(s));
  const vkt_u8* payload = v.asStream();
  if (payload != nullptr) sum += touch(payload, v.streamSize());
  sum += v.isBoundStream();
  std::unique_ptr<VKTReadStream> reader(v.buildStreamReader());
  vkt_u8 buffer[256];
  for (vkt_size n; reader && (n = reader->Read(buffer, sizeof(buffer))) != 0;)
    sum += touch(buffer, n);
  // A shared container is walked once; depth stays within verify's limit.
  if (depth > 64 || !state->seen.insert(v).second) return sum;
  const vkt_u32 n = vkt_u32(v.size());
  for (vkt_u32 i = 0; i <= n; ++i) sum += walk_value(v[i], state, depth + 1);
  vkt_members& names = state->names.emplace_back();
  v.getMemberNames(&names);
  for (const std::string& name : names) {
    VKTValue member;
    vkt_u32 hint = 0;
    sum += v.findMember(name, &member) + v.isMember(name) +
           v.isMember(name.c_str(), &hint) + (v[name] == member);
    sum += walk_value(member, state, depth + 1);
  }
  sum += v.isMember("\x01 no such key") + (v.root() == v);
  // Walks by position, and lookups by prepared key, read the same bytes.
  for (VKTValue e : v.elements()) sum += e.getHash() % 2;
  for (const VKTMember& m : v.members()) {
    const std::string name(m.name);
    auto found = state->keys.find(name);
    if (found == state->keys.end()) {
      found = state->keys.emplace(name, v.object()->prepareKey(name)).first;
    }
    const VKTKey& key = found->second;
    sum += touch(m.name.data(), m.name.size()) + (v.at(m.key()) == m.value) +
           v.isMember(key) + (v[key] == m.value);
  }
  // A copy of a member iterator steps on, and so do the one moved from and
  // the one moved to.
  VKTMemberIterator first = v.members().begin();
  VKTMemberIterator copy = first;
  VKTMemberIterator moved = std::move(first);
  const VKTMemberIterator end = v.members().end();
  for (VKTMemberIterator* it : {&copy, &moved, &first}) {
    if (*it != end && ++*it != end) {
      sum += touch((*it)->name.data(), (*it)->name.size());
    }
  }
  return sum;
}

inline vkt_u64 walk_object(VKTObject* object) {
  WalkState state;
  vkt_u64 sum = object->size() + object->version() + object->endian() +
                object->totalStreamEntitySize() + object->isPurged() +
                object->flags();
  for (const VKTSection& s : object->sections()) sum += s.offset + s.size;
  // Every other walk goes through the key cache, which reads the same bytes.
  static unsigned walks = 0;
  const bool cached = walks++ % 2 == 1;
  object->setKeyHashEnabled(cached);
  sum += walk_value(object->root(), &state, 0);
  object->setKeyHashEnabled(false);
  // Then once more with the names decoded into one block and indexed, so
  // that every lookup by name goes through the index.
  WalkState decoded;
  object->buildKeyIndex();
  sum += walk_value(object->root(), &decoded, 0);
  return sum;
}

// The checked path on an image that passed only verifyTables: each view
// passes verifyStep before anything else reads it, and one that fails is
// left alone. Answers whether every step it took passed.
inline bool walk_checked(VKTValue v, WalkState* state, int depth,
                         vkt_u64* sum) {
  if (!v.verifyStep()) return false;
  *sum += v.type() + v.asBool() + vkt_u64(v.asLongInt()) +
          vkt_u64(v.asDouble() != 0) + v.isBoundStream();
  const char* s = v.asString();
  *sum += touch(s, std::strlen(s));
  const vkt_u8* payload = v.asStream();
  if (payload != nullptr) *sum += touch(payload, v.streamSize());
  if (depth > 64 || !state->seen.insert(v).second) return true;
  bool ok = true;
  const vkt_u32 n = vkt_u32(v.size());
  for (vkt_u32 i = 0; i < n; ++i) {
    ok = walk_checked(v[i], state, depth + 1, sum) && ok;
  }
  vkt_members names;
  v.getMemberNames(&names);
  for (const std::string& name : names) {
    VKTValue member;
    if (v.findMember(name, &member)) {
      ok = walk_checked(member, state, depth + 1, sum) && ok;
    }
  }
  for (VKTValue e : v.elements()) *sum += e == v;  // views, not read
  for (const VKTMember& m : v.members()) {
    *sum += touch(m.name.data(), m.name.size()) + (m.value == v);
  }
  return ok;
}

// Opens a verified image in the ownership modes that `modes` selects (bit
// per vkt_alloc_type; bit 5: through a read stream), walks each, purges where
// that is possible and walks again.
const unsigned kAllOpenings = 0x3F;
inline vkt_u64 walk_image(const vkt_u8* p, vkt_size size,
                          unsigned modes = kAllOpenings) {
  vkt_u64 sum = 0;
  for (int mode = VKT_ALLOC_DUPLICATE; mode <= VKT_ALLOC_PURGE_REFER; ++mode) {
    if (!(modes >> mode & 1)) continue;
    const bool owned = mode == VKT_ALLOC_OWN || mode == VKT_ALLOC_PURGE;
    std::unique_ptr<vkt_u8[]> copy(new vkt_u8[size == 0 ? 1 : size]);
    if (size != 0) std::memcpy(copy.get(), p, size);
    VKTObject object(owned ? copy.release() : copy.get(), size,
                     vkt_alloc_type(mode));
    sum += walk_object(&object);
    object.preparePurge();
    sum += walk_object(&object);
    object.purgeStreamEntity();
    sum += walk_object(&object);
  }
  if (modes >> 5 & 1) {
    VKTObject streamed(new VKTMemoryReadStream(p, size));
    sum += streamed.verify() + walk_object(&streamed);
  }
  return sum;
}

}  // namespace full_walk

#endif  // VKT_TESTS_FULL_WALK_H_
