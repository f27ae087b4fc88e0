// Per-thread free lists for the writer's small blocks of a few fixed sizes.
//
// A tree is made of many blocks of the same few sizes, and a program that
// builds, writes and drops trees in a loop asks the heap for the same sizes
// over and over; with its frees in between, the general allocator spends
// more time sorting and merging them than the tree spends being built. A
// block given back here goes on its thread's list for its size, and the
// next block of that size comes off it. A list holds at most kPoolBytes;
// past that, and when the thread ends, blocks go back to the heap.
//
// The blocks are plain heap blocks, so any thread may give back a block
// another thread took: it simply joins the giver's list.
#ifndef VKT_BLOCK_POOL_H_
#define VKT_BLOCK_POOL_H_

#include <cstddef>
#include <new>

namespace vkt_internal {

const size_t kPoolBytes = 1 << 20;

template <size_t kSize>
class BlockPool {
 public:
  static_assert(kSize >= sizeof(void*), "a free block holds the next one");

  static void* take() {
    List& list = freeList();
    if (list.head == nullptr) return ::operator new(kSize);
    void* p = list.head;
    list.head = *static_cast<void**>(p);
    --list.count;
    return p;
  }

  static void give(void* p) {
    List& list = freeList();
    if (list.count == kPoolBytes / kSize) {
      ::operator delete(p);
      return;
    }
    *static_cast<void**>(p) = list.head;
    list.head = p;
    ++list.count;
  }

 private:
  struct List {
    void* head = nullptr;
    size_t count = 0;
    ~List() {
      while (head != nullptr) {
        void* next = *static_cast<void**>(head);
        ::operator delete(head);
        head = next;
      }
    }
  };
  static List& freeList() {
    thread_local List list;
    return list;
  }
};

// Class-wide operator new and delete that take T's blocks from its pool.
template <typename T>
struct Pooled {
  static void* operator new(size_t) { return BlockPool<sizeof(T)>::take(); }
  static void operator delete(void* p) { BlockPool<sizeof(T)>::give(p); }
};

}  // namespace vkt_internal

#endif  // VKT_BLOCK_POOL_H_
