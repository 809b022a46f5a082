#include "db_layer/RowBuffer.h"

#include <algorithm>
#include <utility>

namespace db_layer {

// Wraps instead of saturating, so that the low 32 bits are right for every 64-bit integer, also a negative one.
std::int32_t LowBits(std::string_view text) {
  const bool negative = !text.empty() && text.front() == '-';
  if (negative) {
    text.remove_prefix(1);
  }
  std::uint32_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') {
      break;
    }
    value = value * 10 + static_cast<std::uint32_t>(c - '0');
  }
  return static_cast<std::int32_t>(negative ? 0U - value : value);
}

void CRowBuffer::Clear() {
  columns_.clear();
  std::string().swap(bytes_);
  std::vector<std::size_t>().swap(ends_);
  row_ = 0;
}

void CRowBuffer::AddColumn(std::string name) {
  columns_.push_back(std::move(name));
}

void CRowBuffer::AddCell(std::string_view text) {
  bytes_.append(text);
  ends_.push_back(bytes_.size());
}

bool CRowBuffer::IsEnd() const {
  return (row_ + 1) * columns_.size() > ends_.size() || columns_.empty();
}

void CRowBuffer::MoveNext() {
  if (!IsEnd()) {
    ++row_;
  }
}

std::string CRowBuffer::GetString(std::string_view column) const {
  return std::string(Cell(Find(column)));
}

std::int32_t CRowBuffer::GetInt(std::size_t index) const {
  return LowBits(Cell(index));
}

std::int32_t CRowBuffer::GetInt(std::string_view column) const {
  return LowBits(Cell(Find(column)));
}

std::size_t CRowBuffer::Find(std::string_view column) const {
  return static_cast<std::size_t>(std::find(columns_.begin(), columns_.end(), column) - columns_.begin());
}

std::string_view CRowBuffer::Cell(std::size_t index) const {
  if (index >= columns_.size() || IsEnd()) {
    return {};
  }
  const std::size_t cell = row_ * columns_.size() + index;
  const std::size_t begin = cell == 0 ? 0 : ends_[cell - 1];
  return std::string_view(bytes_).substr(begin, ends_[cell] - begin);
}

}  // namespace db_layer
