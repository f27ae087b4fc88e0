// Per-thread free lists for the writer's small blocks of a few fixed sizes,
// carved from slabs.
//
// A tree is made of many blocks of the same few sizes, and a program that
// builds, writes and drops trees in a loop asks for the same sizes over and
// over. Asking the general allocator for each one costs more than building
// the node, and its header and rounding add a quarter to the block. So the
// blocks of one size come from slabs of kSlabBytes: a thread cuts its blocks
// one after another from the slab it holds and takes a new slab when that
// one is full. A block given back goes on its thread's list for its size,
// and the next block of that size comes off it; a list holds at most
// kPoolBytes, and past that (and when the thread ends) a block goes back to
// its slab, which returns to the heap once every block cut from it is back.
//
// Any thread may give back a block another thread took (a tree moves
// between threads): it joins the giver's list, or goes back to its slab,
// whose count of blocks still out is atomic for that reason.
#ifndef VKT_BLOCK_POOL_H_
#define VKT_BLOCK_POOL_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

namespace vkt_internal {

const size_t kPoolBytes = 1 << 20;
const size_t kSlabBytes = 64 << 10;  // also the slabs' alignment

// Whether the thread's destructor of a pool part has run. A plain
// thread-local flag outlives every destructor of its thread, so it can be
// read after the part is gone; the part's own members cannot (the compiler
// may drop a destructor's last stores, as nothing may read them after).
template <typename Part>
bool& thread_closed() {
  thread_local bool closed = false;
  return closed;
}

// Empty slabs kept by one thread for its next ones, so that a loop that
// builds and drops trees does not hand its slabs to the heap and ask for
// them again each time (an aligned block costs the heap more than a plain
// one). A slab emptied on any thread may join that thread's spares; once
// the thread's spares are gone, slabs come from the heap and go back to it.
class SpareSlabs {
 public:
  static const size_t kMost = 16;

  // Makes the thread's spares, so that they outlast whatever calls this in
  // its constructor.
  static void open() {
    if (!thread_closed<SpareSlabs>()) forThread();
  }
  static void* take() {
    if (!thread_closed<SpareSlabs>()) {
      SpareSlabs& spares = forThread();
      if (spares.mCount != 0) return spares.mSlabs[--spares.mCount];
    }
    return ::operator new(kSlabBytes, std::align_val_t(kSlabBytes));
  }
  static void give(void* slab) {
    if (!thread_closed<SpareSlabs>()) {
      SpareSlabs& spares = forThread();
      if (spares.mCount != kMost) {
        spares.mSlabs[spares.mCount++] = slab;
        return;
      }
    }
    ::operator delete(slab, std::align_val_t(kSlabBytes));
  }
  ~SpareSlabs() {
    thread_closed<SpareSlabs>() = true;
    while (mCount != 0) {
      ::operator delete(mSlabs[--mCount], std::align_val_t(kSlabBytes));
    }
  }

 private:
  SpareSlabs() = default;
  static SpareSlabs& forThread() {
    thread_local SpareSlabs spares;
    return spares;
  }

  void* mSlabs[kMost];
  size_t mCount = 0;
};

// The head of a slab, at its first byte, found from any block by masking.
//
//   slab:  SlabHead | block | block | ... (kSlabBytes, aligned to it)
//
// `out` counts blocks cut and not yet back, plus kHeld while the cutting
// thread still holds the slab (the thread adds the blocks it cut only when
// it lets go, so cutting needs no atomic step). The slab goes back to the
// heap when the count reaches zero, on whichever side gets there.
struct SlabHead {
  static const std::int64_t kHeld = std::int64_t(1) << 40;
  std::atomic<std::int64_t> out{kHeld};

  static SlabHead* of(void* block) {
    return reinterpret_cast<SlabHead*>(reinterpret_cast<std::uintptr_t>(block) &
                                       ~std::uintptr_t(kSlabBytes - 1));
  }
  static SlabHead* make() { return new (SpareSlabs::take()) SlabHead; }
  static void free(SlabHead* slab) {
    slab->~SlabHead();
    SpareSlabs::give(slab);
  }
  // One block back.
  static void giveBack(void* block) {
    SlabHead* slab = of(block);
    if (slab->out.fetch_sub(1, std::memory_order_acq_rel) == 1) free(slab);
  }
  // The cutting thread lets go after cutting `cut` blocks.
  void release(std::int64_t cut) {
    if (out.fetch_add(cut - kHeld, std::memory_order_acq_rel) == kHeld - cut) {
      free(this);
    }
  }
};

template <size_t kSize>
class BlockPool {
 public:
  static_assert(kSize >= sizeof(void*), "a free block holds the next one");
  static_assert(kSize % alignof(void*) == 0, "blocks stay aligned");

  // Once the thread's state is gone (a tree built by another
  // thread-local's destructor), each block takes a slab of its own and goes
  // back to it.
  static void* take() {
    State* state = current();
    if (state == nullptr) return loneBlock();
    if (state->head == nullptr) return state->cutBlock();
    void* p = state->head;
    state->head = *static_cast<void**>(p);
    --state->count;
    return p;
  }

  static void give(void* p) {
    State* state = current();
    if (state == nullptr || state->count == kPoolBytes / kSize) {
      SlabHead::giveBack(p);
      return;
    }
    *static_cast<void**>(p) = state->head;
    state->head = p;
    ++state->count;
  }

 private:
  struct State;
  // Blocks start behind the head, at the largest fundamental alignment.
  static const size_t kFirst =
      (sizeof(SlabHead) + alignof(std::max_align_t) - 1) &
      ~(alignof(std::max_align_t) - 1);

  // The thread's state while it lives: a plain thread-local pointer, so the
  // common case reads one word and tests it, with no guard of a first use.
  static State*& live() {
    thread_local State* state = nullptr;
    return state;
  }
  static State* current() {
    State* state = live();
    return state != nullptr ? state : open();
  }
  // The thread's first use makes its state; null once the state is gone.
  static State* open() {
    if (thread_closed<BlockPool>()) return nullptr;
    thread_local State state;
    return &state;
  }
  // A slab for one block, let go at once, so that the slab goes back to the
  // heap with its block.
  static void* loneBlock() {
    SlabHead* fresh = SlabHead::make();
    fresh->release(1);
    return reinterpret_cast<char*>(fresh) + kFirst;
  }

  struct State {
    // The thread's spare slabs are made first, so they outlast this.
    State() {
      SpareSlabs::open();
      live() = this;
    }

    void* head = nullptr;  // the free list
    size_t count = 0;
    SlabHead* slab = nullptr;  // the slab being cut
    char* next = nullptr;      // its next block
    char* end = nullptr;
    std::int64_t cut = 0;  // blocks cut from it

    void* cutBlock() {
      if (size_t(end - next) < kSize) newSlab();
      void* p = next;
      next += kSize;
      ++cut;
      return p;
    }
    void newSlab() {
      SlabHead* fresh = SlabHead::make();  // may throw: nothing changed yet
      if (slab != nullptr) slab->release(cut);
      slab = fresh;
      next = reinterpret_cast<char*>(fresh) + kFirst;
      end = reinterpret_cast<char*>(fresh) + kSlabBytes;
      cut = 0;
    }
    // Everything back, and the pool closed for the rest of the thread.
    ~State() {
      live() = nullptr;
      thread_closed<BlockPool>() = true;
      while (head != nullptr) {
        void* following = *static_cast<void**>(head);
        SlabHead::giveBack(head);
        head = following;
      }
      if (slab != nullptr) slab->release(cut);
    }
  };
};

// Blocks of any size up to kLargestPooled (object blocks and their node chunks,
// array storage) from the pool of the smallest class that holds them, larger
// ones from the heap. The caller gives a block back with the size it asked for.
const size_t kLargestPooled = 1024;

// The size of the class that serves `bytes`: steps of a half and a quarter
// between powers of two, so a block wastes at most a third of itself.
inline size_t pooled_size(size_t bytes) {
  if (bytes <= 32) return 32;
  if (bytes > kLargestPooled) return bytes;
  size_t power = 32;
  while (power * 2 < bytes) power *= 2;  // power < bytes <= 2 power
  return bytes <= power + power / 2 ? power + power / 2 : power * 2;
}

template <typename F>
inline auto with_pool(size_t bytes, F f) {
  switch (pooled_size(bytes)) {
    case 32:
      return f(BlockPool<32>());
    case 48:
      return f(BlockPool<48>());
    case 64:
      return f(BlockPool<64>());
    case 96:
      return f(BlockPool<96>());
    case 128:
      return f(BlockPool<128>());
    case 192:
      return f(BlockPool<192>());
    case 256:
      return f(BlockPool<256>());
    case 384:
      return f(BlockPool<384>());
    case 512:
      return f(BlockPool<512>());
    case 768:
      return f(BlockPool<768>());
    default:
      return f(BlockPool<1024>());
  }
}

inline void* take_sized(size_t bytes) {
  if (bytes > kLargestPooled) return ::operator new(bytes);
  return with_pool(bytes, [](auto pool) { return decltype(pool)::take(); });
}

inline void give_sized(void* p, size_t bytes) {
  if (bytes > kLargestPooled) {
    ::operator delete(p);
    return;
  }
  with_pool(bytes, [p](auto pool) { decltype(pool)::give(p); });
}

// Class-wide operator new and delete that take T's blocks from its pool.
template <typename T>
struct Pooled {
  static void* operator new(size_t) { return BlockPool<sizeof(T)>::take(); }
  static void operator delete(void* p) { BlockPool<sizeof(T)>::give(p); }
};

}  // namespace vkt_internal

#endif  // VKT_BLOCK_POOL_H_
