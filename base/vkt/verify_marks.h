// Which containers the value walk has reached, and what it remembers of the
// ones reached more than once. Two forms with one interface:
//
//   SectionMarks  for a whole value section: three bits per byte (reached,
//                 reached again, holds containers), then in pass two 4 bytes
//                 per container reached again, found by its rank among them
//                 (a 32-bit count per 64 bytes).
//   SparseMarks   for one value of an image not verified whole: hash tables
//                 that grow with what is reached, so a small subtree of a
//                 large image costs what it holds.
//
// A memo packs a finished container's visits (values below it, each shared
// one counted once per reference, itself included) with its height in the
// low 8 bits; 0 means "not finished yet".
#ifndef VKT_VERIFY_MARKS_H_
#define VKT_VERIFY_MARKS_H_

#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "vkt/format.h"

namespace vkt_internal {

inline vkt_u64 make_memo(vkt_u64 visits, vkt_u32 height) {
  return visits << 8 | height;
}
inline vkt_u64 memo_visits(vkt_u64 memo) { return memo >> 8; }
inline vkt_u32 memo_height(vkt_u64 memo) { return vkt_u32(memo & 0xFF); }

class SectionMarks {
 public:
  // Room for a section of `size` bytes. Allocation failures throw
  // std::bad_alloc, which the walk's caller turns into a refusal.
  bool init(vkt_u32 size) {
    const size_t words = size_t(size) / 64 + 1;
    mReached.reset(new vkt_u64[words]());
    mAgain.reset(new vkt_u64[words]());
    mBranch.reset(new vkt_u64[words]());
    mWords = words;
    return true;
  }
  // A finished container with containers among its children: one reached
  // again needs pass two, while one whose children are all scalars counts
  // from its own head.
  void setBranch(vkt_u32 index) {
    mBranch[index / 64] |= vkt_u64(1) << (index % 64);
  }
  bool branch(vkt_u32 index) const {
    return mBranch[index / 64] >> (index % 64) & 1;
  }
  // True the first time `index` is reached; marks it shared after that.
  bool reach(vkt_u32 index) {
    const vkt_u64 bit = vkt_u64(1) << (index % 64);
    vkt_u64& reached = mReached[index / 64];
    if (!(reached & bit)) {
      reached |= bit;
      return true;
    }
    vkt_u64& again = mAgain[index / 64];
    mShared += !(again & bit);
    again |= bit;
    return false;
  }
  bool anyShared() const { return mShared != 0; }
  bool shared(vkt_u32 index) const {
    return mAgain[index / 64] >> (index % 64) & 1;
  }
  // Ranks the shared containers and makes their memos.
  bool indexShared() {
    mRanks.reset(new vkt_u32[mWords]);
    mMemos.reset(new vkt_u32[mShared == 0 ? 1 : mShared]());
    vkt_u32 rank = 0;
    for (size_t w = 0; w < mWords; ++w) {
      mRanks[w] = rank;
      rank += vkt_u32(__builtin_popcountll(mAgain[w]));
    }
    return true;
  }
  vkt_u64 memo(vkt_u32 index) const {
    const vkt_u32 m = mMemos[rankOf(index)];
    if (m >> 8 != kOverflow) return m;
    return mOverflow.find(index)->second;
  }
  void setMemo(vkt_u32 index, vkt_u64 memo) {
    if (memo_visits(memo) < kOverflow) {
      mMemos[rankOf(index)] = vkt_u32(memo);
      return;
    }
    // Few containers stand for 2^24 values or more: the values budget
    // stops the walk after (budget / 2^24) of them at most.
    mMemos[rankOf(index)] = kOverflow << 8;
    mOverflow[index] = memo;
  }

 private:
  static const vkt_u32 kOverflow = 0xFFFFFF;  // visits kept aside
  vkt_u32 rankOf(vkt_u32 index) const {
    const vkt_u64 below =
        mAgain[index / 64] & ((vkt_u64(1) << (index % 64)) - 1);
    return mRanks[index / 64] + vkt_u32(__builtin_popcountll(below));
  }

  std::unique_ptr<vkt_u64[]> mReached;
  std::unique_ptr<vkt_u64[]> mAgain;
  std::unique_ptr<vkt_u64[]> mBranch;
  size_t mWords = 0;
  vkt_u32 mShared = 0;
  std::unique_ptr<vkt_u32[]> mRanks;
  std::unique_ptr<vkt_u32[]> mMemos;
  std::unordered_map<vkt_u32, vkt_u64> mOverflow;
};

class SparseMarks {
 public:
  bool init(vkt_u32) { return true; }
  bool reach(vkt_u32 index) {
    auto it = mStates.emplace(index, false);
    if (it.second) return true;
    mShared += !it.first->second;
    it.first->second = true;
    return false;
  }
  bool anyShared() const { return mShared != 0; }
  bool shared(vkt_u32 index) const {
    auto it = mStates.find(index);
    return it != mStates.end() && it->second;
  }
  void setBranch(vkt_u32 index) { mBranches.insert(index); }
  bool branch(vkt_u32 index) const { return mBranches.count(index) != 0; }
  bool indexShared() { return true; }
  vkt_u64 memo(vkt_u32 index) const {
    auto it = mMemos.find(index);
    return it == mMemos.end() ? 0 : it->second;
  }
  void setMemo(vkt_u32 index, vkt_u64 memo) { mMemos[index] = memo; }

 private:
  std::unordered_map<vkt_u32, bool> mStates;  // true: reached again
  std::unordered_map<vkt_u32, vkt_u64> mMemos;
  std::unordered_set<vkt_u32> mBranches;
  vkt_u32 mShared = 0;
};

}  // namespace vkt_internal

#endif  // VKT_VERIFY_MARKS_H_
