#include "manager/coverage.h"

#include <algorithm>

namespace {

bool is_white(uint8_t byte) { return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n'; }

}  // namespace

void Smtp_coverage::start(const Vek_buffer* data, uint64_t body_start) {
  data_ = data;
  covered_to_ = data == nullptr ? 0 : std::min<uint64_t>(body_start, data->size());
  gaps_.clear();
}

void Smtp_coverage::cover(uint64_t start, uint64_t end) {
  if (data_ == nullptr) return;
  end = std::min<uint64_t>(end, data_->size());
  if (end <= covered_to_) return;
  if (start > covered_to_) add_gap(covered_to_, start, gaps_);
  covered_to_ = end;
}

std::vector<Smtp_range> Smtp_coverage::unexamined() const {
  std::vector<Smtp_range> ranges = gaps_;
  if (data_ != nullptr) add_gap(covered_to_, data_->size(), ranges);
  return ranges;
}

void Smtp_coverage::add_gap(uint64_t start, uint64_t end, std::vector<Smtp_range>& gaps) const {
  const uint8_t* bytes = data_->data();
  while (start < end && is_white(bytes[start])) ++start;
  while (end > start && is_white(bytes[end - 1])) --end;
  if (start < end) gaps.push_back(Smtp_range{start, end - start});
}
