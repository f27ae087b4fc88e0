#include "alloc_meter.h"

#include <malloc.h>  // malloc_usable_size

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<size_t> gLive{0};
std::atomic<size_t> gPeak{0};

void* counted(size_t size) {
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  const size_t live = gLive += malloc_usable_size(p);
  size_t peak = gPeak.load();
  while (live > peak && !gPeak.compare_exchange_weak(peak, live)) {
  }
  return p;
}

void release(void* p) {
  if (p == nullptr) return;
  gLive -= malloc_usable_size(p);
  std::free(p);
}

// Over-aligned blocks (the writer's slabs) come from aligned_alloc, which
// free and malloc_usable_size take like any other block.
void* counted_aligned(size_t size, std::align_val_t alignment) {
  const size_t a = size_t(alignment);
  void* p = std::aligned_alloc(a, (size + a - 1) / a * a);
  if (p == nullptr) throw std::bad_alloc();
  const size_t live = gLive += malloc_usable_size(p);
  size_t peak = gPeak.load();
  while (live > peak && !gPeak.compare_exchange_weak(peak, live)) {
  }
  return p;
}

}  // namespace

void* operator new(size_t size) { return counted(size); }
void* operator new[](size_t size) { return counted(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return counted(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](size_t size, const std::nothrow_t& t) noexcept {
  return operator new(size, t);
}
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, size_t) noexcept { release(p); }
void operator delete[](void* p, size_t) noexcept { release(p); }
void* operator new(size_t size, std::align_val_t a) {
  return counted_aligned(size, a);
}
void operator delete(void* p, std::align_val_t) noexcept { release(p); }
void operator delete(void* p, size_t, std::align_val_t) noexcept { release(p); }

AllocMeter::AllocMeter() : mBase(gLive.load()) { gPeak = mBase; }

size_t AllocMeter::peak() const { return gPeak.load() - mBase; }
