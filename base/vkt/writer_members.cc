// The members of an object block: found by a scan or a hash index, made in
// pages the object owns, sorted by key when the writer asks.
#include <algorithm>

#include "vkt/writer_blocks.h"

using vkt_internal::hash_bytes;

namespace {

// An object starts indexing its members once a scan would cost more than a
// hash; the index keeps at least half of its slots free.
const size_t kIndexFrom = 16;

// Page sizes (member bytes, the page's header apart): a first page without
// a hint holds a few small members; later pages double up to a bound, and a
// hint never makes a first page larger than kMaxFirstPage, so an object that
// shares its first key with a large one wastes little.
const size_t kFirstPage = 96;
const size_t kMaxFirstPage = 1024;
const size_t kMaxFirstCount = 32;  // the vector's first room, likewise
const size_t kMaxPage = 64 << 10;

// What the last object beginning with a given first key grew to: records of
// one shape ask for the same room, so the next one takes it in one page and
// one vector. Per thread, as trees are; only a hint, never a promise.
struct ShapeHint {
  vkt_u32 bytes;
  vkt_u32 count;
};
const size_t kShapeHints = 64;
thread_local ShapeHint tShapeHints[kShapeHints];

ShapeHint& shape_hint(std::string_view firstKey) {
  size_t h = firstKey.size() * 31;
  if (!firstKey.empty()) h += vkt_u8(firstKey[0]) * 7 + vkt_u8(firstKey.back());
  return tShapeHints[h % kShapeHints];
}

}  // namespace

VKTWriterValue::ObjectInfo::~ObjectInfo() {
  for (Member* m : mMembers) m->~Member();
  while (mPages != nullptr) {
    Page* next = mPages->next;
    vkt_internal::give_sized(mPages, mPages->bytes);
    mPages = next;
  }
}

void* VKTWriterValue::ObjectInfo::allocate(size_t bytes,
                                           std::string_view firstKey) {
  if (mPageFree < bytes) {
    size_t size =
        mPages == nullptr
            ? std::min<size_t>(shape_hint(firstKey).bytes, kMaxFirstPage)
            : std::min<size_t>(2 * mPageBytes, kMaxPage);
    if (size < kFirstPage) size = kFirstPage;
    if (size < bytes) size = bytes;
    // The page takes the whole of the pooled block it gets.
    const size_t whole = vkt_internal::pooled_size(sizeof(Page) + size);
    size = whole - sizeof(Page);
    Page* page = static_cast<Page*>(vkt_internal::take_sized(whole));
    page->bytes = whole;
    page->next = mPages;
    mPages = page;
    mPageBytes = vkt_u32(size);
    mPageFree = vkt_u32(size);
  }
  char* p = reinterpret_cast<char*>(mPages + 1) + (mPageBytes - mPageFree);
  mPageFree -= vkt_u32(bytes);
  mUsed += vkt_u32(bytes);
  return p;
}

// Makes the member and its vector slot; throws with the object unchanged.
VKTWriterValue::Member* VKTWriterValue::ObjectInfo::addMember(
    std::string_view key) {
  const std::string_view firstKey = mMembers.empty() ? key : mMembers[0]->key();
  if (mMembers.size() == mMembers.capacity()) {  // 4, 6, 9...: little slack
    size_t want = mMembers.empty() ? 4 : mMembers.size() * 3 / 2;
    if (mMembers.empty()) {
      want = std::max<size_t>(
          want, std::min<size_t>(shape_hint(key).count, kMaxFirstCount));
    }
    mMembers.reserve(want);
  }
  Member* m =
      new (allocate(Member::bytesFor(key.size()), firstKey)) Member(key);
  if (mSorted && !mMembers.empty() && mMembers.back()->key() > key) {
    mSorted = false;
  }
  mMembers.push_back(m);  // reserved: cannot throw
  ShapeHint& hint = shape_hint(firstKey);
  hint.bytes = mUsed;
  hint.count = vkt_u32(mMembers.size());
  return m;
}

VKTWriterValue& VKTWriterValue::ObjectInfo::at(std::string_view key) {
  const vkt_u32 next = vkt_u32(mMembers.size());
  vkt_u32 found = next;
  if (!indexed()) {
    for (vkt_u32 i = 0; i < next && found == next; ++i) {
      if (mMembers[i]->key() == key) found = i;
    }
  } else {
    found = mIndex->findOrAdd(
        hash_bytes(key.data(), key.size()), next,
        [&](vkt_u32 i) { return mMembers[i]->key() == key; },
        [this](vkt_u32 i) { return mMembers[i]->keyHash(); });
  }
  if (found != next) return mMembers[found]->mValue;
  Member* m = nullptr;
  try {
    m = addMember(key);
  } catch (...) {
    // The index has a slot for the member that did not come: rebuilt, or
    // left empty (the object is then scanned) if that fails too.
    if (indexed()) indexAll();
    throw;
  }
  if (!indexed() && mMembers.size() == kIndexFrom) indexAll();
  return m->mValue;
}

// All slots are made first, so a failed allocation leaves the index empty
// rather than missing members.
void VKTWriterValue::ObjectInfo::indexAll() const {
  if (mIndex == nullptr) mIndex.reset(new vkt_internal::OpenIndex);
  mIndex->clear();
  mIndex->reserve(mMembers.size());
  for (vkt_u32 i = 0; i < mMembers.size(); ++i) {
    mIndex->findOrAdd(
        mMembers[i]->keyHash(), i, [](vkt_u32) { return false; },
        [this](vkt_u32 j) { return mMembers[j]->keyHash(); });
  }
}

void VKTWriterValue::ObjectInfo::sort() const {
  if (mSorted) return;
  // Keys are unique, so any sort gives the one order.
  std::sort(
      mMembers.begin(), mMembers.end(),
      [](const Member* a, const Member* b) { return a->key() < b->key(); });
  mSorted = true;
  if (indexed()) indexAll();  // the indexes moved
}
