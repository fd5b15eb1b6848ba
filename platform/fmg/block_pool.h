// Block_pool: fixed-size blocks for the nodes a host makes per item.
//
// A walk makes an item node (and its Fmg_host_item) for every part and
// frees them all when the message is done: tens of thousands of blocks of
// one size, which the general allocator hands out one by one and, torn down
// together, merges back one by one. A pool keeps freed blocks on a list per
// thread and hands them out again; the blocks are carved from chunks that
// live as long as the process, so a block freed on another thread than the
// one that made it is simply kept by that thread, and a thread that ends
// hands its blocks on. The pool owns the chunks; whoever takes a block owns
// it until giving it back.
//
// Under AddressSanitizer every block comes from the general allocator, so
// that a node used after it was freed is still reported.
#ifndef SMTPFM_PLATFORM_FMG_BLOCK_POOL_H_
#define SMTPFM_PLATFORM_FMG_BLOCK_POOL_H_

#include <cstddef>
#include <mutex>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define SMTPFM_BLOCK_POOL_CHECKED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SMTPFM_BLOCK_POOL_CHECKED 1
#endif
#endif

template <size_t Size, size_t Align>
class Block_pool {
 public:
  // A block of Size bytes, aligned to Align.
  static void* take() {
#ifdef SMTPFM_BLOCK_POOL_CHECKED
    return ::operator new(Size, std::align_val_t{Align});
#else
    Free*& head = free_list();
    if (head == nullptr) refill(head);
    Free* block = head;
    head = block->next;
    return block;
#endif
  }
  // Gives back a block that take() gave out.
  static void give(void* block) noexcept {
    if (block == nullptr) return;
#ifdef SMTPFM_BLOCK_POOL_CHECKED
    ::operator delete(block, std::align_val_t{Align});
#else
    Free*& head = free_list();
    head = new (block) Free{head};
#endif
  }

 private:
  struct Free {
    Free* next;
  };
  static constexpr size_t at_least = Size < sizeof(Free) ? sizeof(Free) : Size;
  static constexpr size_t block_size = (at_least + Align - 1) / Align * Align;
  static_assert(Align >= alignof(Free));
  // Blocks carved at once: one allocation of a few KiB serves a run of
  // parts, and a small message costs one chunk.
  static constexpr size_t chunk_blocks = 32;

  // A thread's free blocks. When the thread ends they go to the shared
  // list, from which any thread refills before carving a chunk: a mail
  // server that serves each connection on a thread of its own keeps what
  // its busiest threads held at once, not what every thread ever held.
  struct Local {
    Free* head = nullptr;
    ~Local() {
      if (head == nullptr) return;
      Free* tail = head;
      while (tail->next != nullptr) tail = tail->next;
      const std::lock_guard<std::mutex> guard(shared().lock);
      tail->next = shared().head;
      shared().head = head;
      // A block given back later in the thread's end stays here, unused.
      head = nullptr;
    }
  };
  struct Shared {
    std::mutex lock;
    Free* head = nullptr;
  };

  static Shared& shared() {
    // Never destroyed: threads may end after the program's statics.
    static Shared* list = new Shared;
    return *list;
  }
  static Free*& free_list() {
    thread_local Local local;
    return local.head;
  }
  static void refill(Free*& head) {
    {
      const std::lock_guard<std::mutex> guard(shared().lock);
      head = shared().head;
      shared().head = nullptr;
    }
    if (head != nullptr) return;
    auto* chunk = static_cast<char*>(::operator new(block_size * chunk_blocks, std::align_val_t{Align}));
    for (size_t i = chunk_blocks; i-- > 0;) head = new (chunk + i * block_size) Free{head};
  }
};

// The class-specific allocation of a pooled type: blocks of T's own size
// come from its pool, any other size (a class derived from T) from the
// general allocator.
template <class T>
void* pooled_new(size_t size) {
  return size == sizeof(T) ? Block_pool<sizeof(T), alignof(T)>::take() : ::operator new(size);
}

template <class T>
void pooled_delete(void* block, size_t size) noexcept {
  if (size == sizeof(T))
    Block_pool<sizeof(T), alignof(T)>::give(block);
  else
    ::operator delete(block);
}

#endif  // SMTPFM_PLATFORM_FMG_BLOCK_POOL_H_
