#include "db_layer/SqlWords.h"

#include <algorithm>
#include <cctype>

namespace db_layer {

std::string_view SkipBlanks(std::string_view sql) {
  for (;;) {
    const auto start = sql.find_first_not_of(" \t\r\n\f");
    if (start == std::string_view::npos) {
      return {};
    }
    sql.remove_prefix(start);
    const char* end = sql.starts_with("--") ? "\n" : sql.starts_with("/*") ? "*/" : nullptr;
    if (end == nullptr) {
      return sql;
    }
    const auto found = sql.find(end, 2);
    sql.remove_prefix(found == std::string_view::npos ? sql.size() : found + std::string_view(end).size());
  }
}

bool StartsWithWord(std::string_view sql, std::string_view word) {
  const auto is_part = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; };
  return sql.size() >= word.size() && (sql.size() == word.size() || !is_part(sql[word.size()])) &&
         std::equal(word.begin(), word.end(), sql.begin(), [](char expected, char found) {
           return expected == std::toupper(static_cast<unsigned char>(found));
         });
}

std::string_view SequenceOf(std::string_view sql) {
  constexpr std::string_view kBegin = "SELECT nextval('";
  constexpr std::string_view kEnd = "')";
  if (!sql.starts_with(kBegin) || !sql.ends_with(kEnd) || sql.size() < kBegin.size() + kEnd.size()) {
    return {};
  }
  sql.remove_prefix(kBegin.size());
  sql.remove_suffix(kEnd.size());
  return sql.find_first_of(std::string_view("'\0", 2)) == std::string_view::npos ? sql : std::string_view();
}

}  // namespace db_layer
