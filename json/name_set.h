// NameSet: the member names of one object, to find a second member of the
// same name while JSON text is read.
#ifndef VKT_JSON_NAME_SET_H_
#define VKT_JSON_NAME_SET_H_

#include <string_view>
#include <vector>

#include "vkt/writer_blocks.h"  // OpenIndex, hash_bytes

// Member names of one object, to find a second member of the same name.
// The names are views into the parser's string buffer, valid through one
// parse. A small object is scanned; from kIndexFrom names on the writer's
// open-addressing index over their hashes takes over.
class NameSet {
 public:
  void clear() {
    names_.clear();
    hashes_.clear();
    index_.clear();
  }
  // False when `name` is in the set already.
  bool insert(std::string_view name) {
    if (index_.empty()) {
      for (std::string_view n : names_) {
        if (n == name) return false;
      }
      names_.push_back(name);
      if (names_.size() == kIndexFrom) indexAll();
      return true;
    }
    const vkt_u64 h = vkt_internal::hash_bytes(name.data(), name.size());
    const vkt_u32 next = vkt_u32(names_.size());
    const vkt_u32 found = index_.findOrAdd(
        h, next,
        [&](vkt_u32 i) { return hashes_[i] == h && names_[i] == name; },
        [this](vkt_u32 i) { return hashes_[i]; });
    if (found != next) return false;
    names_.push_back(name);
    hashes_.push_back(h);
    return true;
  }

 private:
  static const size_t kIndexFrom = 16;

  void indexAll() {
    index_.reserve(names_.size());
    for (vkt_u32 i = 0; i < names_.size(); ++i) {
      hashes_.push_back(
          vkt_internal::hash_bytes(names_[i].data(), names_[i].size()));
      index_.findOrAdd(
          hashes_[i], i, [](vkt_u32) { return false; },
          [this](vkt_u32 j) { return hashes_[j]; });
    }
  }

  std::vector<std::string_view> names_;
  std::vector<vkt_u64> hashes_;  // filled once the index is on
  vkt_internal::OpenIndex index_;
};

#endif  // VKT_JSON_NAME_SET_H_
