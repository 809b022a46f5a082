#include "db_layer/BufferedConnect.h"

#include <cstddef>
#include <new>
#include <string_view>

namespace db_layer {

namespace details {
namespace {

constexpr std::size_t kSelectLength = std::string_view("SELECT ").size();

}  // namespace
}  // namespace details

int CBufferedConnect::GetLastError(std::string& text) {
  try {
    text = error_.text;
  } catch (const std::bad_alloc&) {
    text.clear();
  }
  return error_.code;
}

void CBufferedConnect::MoveNext() {
  rows_.MoveNext();
}

bool CBufferedConnect::IsEnd() {
  return rows_.IsEnd();
}

std::string CBufferedConnect::GetString(const std::string& column) {
  return rows_.GetString(column);
}

std::int32_t CBufferedConnect::GetInt(int index) {
  return index < 0 ? 0 : rows_.GetInt(static_cast<std::size_t>(index));
}

std::int32_t CBufferedConnect::GetInt(const std::string& column) {
  return rows_.GetInt(column);
}

void CBufferedConnect::ShowNextValue(const std::string& sql, std::int64_t value) {
  rows_.AddColumn(sql.substr(details::kSelectLength));
  rows_.AddCell(std::to_string(value));
}

}  // namespace db_layer
