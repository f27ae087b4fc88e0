// NameSet: the member names of one object, to find a second member of the
// same name while JSON text is read.
#ifndef VKT_JSON_NAME_SET_H_
#define VKT_JSON_NAME_SET_H_

#include <string_view>
#include <vector>

#include "vkttypes.h"

// Member names of one object, to find a second member of the same name.
// The names are views into the parser's string buffer, valid through one
// parse. A small object is scanned; from kIndexFrom names on an open-
// addressing index of positions (plus one, 0 for a free slot) takes over.
class NameSet {
 public:
  void clear() {
    names_.clear();
    indexed_ = false;
  }
  // False when `name` is in the set already.
  bool insert(std::string_view name) {
    if (!indexed_) {
      for (std::string_view n : names_) {
        if (n == name) return false;
      }
      names_.push_back(name);
      if (names_.size() == kIndexFrom) reindex();
      return true;
    }
    vkt_u32* slot = find(name);
    if (*slot != 0) return false;
    names_.push_back(name);
    *slot = vkt_u32(names_.size());
    if (names_.size() * 2 > slots_.size()) reindex();
    return true;
  }

 private:
  static const size_t kIndexFrom = 16;

  static size_t hash(std::string_view s) {
    vkt_u64 h = 0xCBF29CE484222325ull;  // FNV-1a: names are short
    for (char c : s) h = (h ^ static_cast<unsigned char>(c)) * 0x100000001B3ull;
    return size_t(h ^ (h >> 32));
  }
  vkt_u32* find(std::string_view name) {
    const size_t mask = slots_.size() - 1;
    for (size_t i = hash(name) & mask;; i = (i + 1) & mask) {
      if (slots_[i] == 0 || names_[slots_[i] - 1] == name) return &slots_[i];
    }
  }
  void reindex() {
    size_t slots = 4 * kIndexFrom;
    while (slots < names_.size() * 4) slots *= 2;
    slots_.assign(slots, 0);
    for (size_t i = 0; i < names_.size(); ++i)
      *find(names_[i]) = vkt_u32(i + 1);
    indexed_ = true;
  }

  std::vector<std::string_view> names_;
  std::vector<vkt_u32> slots_;
  bool indexed_ = false;
};

#endif  // VKT_JSON_NAME_SET_H_
