// Buffers of the base library stand-in. All of them keep one contiguous
// block; the growing ones grow it with realloc, which for large blocks moves
// pages instead of copying bytes, so a buffer that grows to hundreds of
// megabytes never needs twice its size.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__linux__)
#include <sys/mman.h>
#endif

#include "contracts/vek.h"

namespace {

// Blocks from this size on are asked to be backed by huge pages where the
// system offers them on request: a decoded attachment of tens of megabytes
// then costs a few dozen page faults instead of thousands, and on virtual
// machines each fault is dear. The advice is only a hint; a system that
// ignores it loses nothing.
constexpr uint64_t huge_page_threshold = uint64_t{8} << 20;
constexpr uintptr_t huge_page = uintptr_t{2} << 20;

void advise_huge_pages([[maybe_unused]] void* block, [[maybe_unused]] uint64_t size) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  if (size < huge_page_threshold) return;
  const uintptr_t begin = (reinterpret_cast<uintptr_t>(block) + huge_page - 1) & ~(huge_page - 1);
  const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + size) & ~(huge_page - 1);
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#endif
}

}  // namespace

Vek_buffer::~Vek_buffer() = default;

void Vek_buffer::write_at(uint64_t, const void*, size_t, Vek_status& status) { status = vek_not_writable; }

Vek_memory_buffer::Vek_memory_buffer() = default;

Vek_memory_buffer::~Vek_memory_buffer() { std::free(bytes_); }

void Vek_memory_buffer::reserve(uint64_t capacity) {
  if (capacity <= capacity_) return;
  void* grown = std::realloc(bytes_, capacity);
  if (grown == nullptr) throw std::bad_alloc();
  bytes_ = static_cast<uint8_t*>(grown);
  capacity_ = capacity;
  advise_huge_pages(bytes_, capacity_);
}

void Vek_memory_buffer::write_at(uint64_t position, const void* bytes, size_t count, Vek_status& status) {
  status.clear();
  const uint64_t end = position + count;
  if (end < position) {
    status = vek_bad_argument;
    return;
  }
  if (end > capacity_) {
    // Grow by half again: amortised constant cost per byte, little slack.
    uint64_t want = capacity_ < 4096 ? 4096 : capacity_ + capacity_ / 2;
    reserve(want < end ? end : want);
  }
  if (position > size_) std::memset(bytes_ + size_, 0, position - size_);
  if (count != 0) std::memcpy(bytes_ + position, bytes, count);
  if (end > size_) size_ = end;
}

Vek_page_buffer::Vek_page_buffer(uint32_t initial_pages, uint32_t page_kib) {
  if (initial_pages != 0) reserve(uint64_t{initial_pages} * page_kib * 1024);
}

Vek_raw_memory_buffer::Vek_raw_memory_buffer(uint64_t size, const void* block, uint32_t method)
    : block_(static_cast<uint8_t*>(const_cast<void*>(block))), size_(block == nullptr ? 0 : size), method_(method) {}

Vek_raw_memory_buffer::~Vek_raw_memory_buffer() {
  if (method_ == 2) delete[] block_;
}

void Vek_raw_memory_buffer::write_at(uint64_t position, const void* bytes, size_t count, Vek_status& status) {
  status.clear();
  // The block belongs to someone else and cannot grow; method 0 may even
  // wrap constant bytes, so only a block that was handed over is written.
  if (method_ != 2 || position > size_ || count > size_ - position) {
    status = vek_not_writable;
    return;
  }
  if (count != 0) std::memcpy(block_ + position, bytes, count);
}

Vek_sub_buffer::Vek_sub_buffer(const Vek_buffer* parent, uint64_t start, uint64_t end)
    : parent_(parent), start_(start), end_(end) {
  // A view of a view looks straight at the first parent that is no view,
  // with the same bytes: a part nested many levels deep then answers size()
  // and data() in one step instead of one per level. A view cannot grow, so
  // only a last parent's growth reaches through, as it would step by step.
  if (const auto* view = dynamic_cast<const Vek_sub_buffer*>(parent)) {
    parent_ = view->parent_;
    start_ = start > vek_to_end - view->start_ ? vek_to_end : view->start_ + start;
    const uint64_t own_end = end > vek_to_end - view->start_ ? vek_to_end : view->start_ + end;
    end_ = own_end < view->end_ ? own_end : view->end_;
  }
}

uint64_t Vek_sub_buffer::size() const {
  if (parent_ == nullptr) return 0;
  uint64_t parent_size = parent_->size();
  uint64_t end = end_ < parent_size ? end_ : parent_size;
  return end > start_ ? end - start_ : 0;
}

const uint8_t* Vek_sub_buffer::data() const {
  // Null exactly when size() is 0, asking the parent for its size once.
  if (parent_ == nullptr || end_ <= start_ || start_ >= parent_->size()) return nullptr;
  return parent_->data() + start_;
}
