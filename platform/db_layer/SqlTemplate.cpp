#include "db_layer/SqlTemplate.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace db_layer {

namespace details {
namespace {

// A statement with more values than this stays as it is. Such long lists differ in length from call to call, so a
// template of one call would not serve the next.
constexpr std::size_t kMaxValues = 64;
constexpr std::size_t kMaxDigits = 18;  // every number of up to this many digits fits in 64 bits

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsWordCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || IsDigit(c) || c == '_';
}

bool IsWord(std::string_view text, std::string_view upper_case) {
  return std::equal(text.begin(), text.end(), upper_case.begin(), upper_case.end(),
                    [](char c, char upper) { return (c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c) == upper; });
}

template <std::size_t Count>
bool IsOneOf(std::string_view text, const std::array<std::string_view, Count>& words) {
  return std::any_of(words.begin(), words.end(), [text](std::string_view word) { return IsWord(text, word); });
}

constexpr std::array<std::string_view, 3> kWrites = {"INSERT", "UPDATE", "DELETE"};
// After these words, a number or a text can be more than a value.
constexpr std::array<std::string_view, 4> kMoreThanValues = {"SELECT", "ORDER", "GROUP", "RETURNING"};

class CTemplateScanner {
 public:
  CTemplateScanner(std::string_view sql, SqlTemplate& result) : sql_(sql), result_(result) {}

  bool Scan() {
    result_.text.reserve(sql_.size());
    while (at_ < sql_.size()) {
      if (!TakeNext()) {
        return false;
      }
    }
    return !result_.values.empty();
  }

 private:
  bool TakeNext() {
    const char c = sql_[at_];
    if (IsBlank(c)) {
      return TakeCharacter();
    }
    if (std::string_view("(),.=;").find(c) != std::string_view::npos) {
      value_may_follow_ = c == '(' || c == ',' || c == '=';
      return !IsAtBeginning() && TakeCharacter();
    }
    if (c == '\'') {
      return TakeText();
    }
    return c == '-' || IsDigit(c) ? TakeNumber() : TakeWord();
  }

  bool TakeCharacter() {
    result_.text += sql_[at_++];
    return true;
  }

  bool TakeWord() {
    const std::string_view word = sql_.substr(at_, WordLength());
    if (word.empty() || (IsAtBeginning() ? !IsOneOf(word, kWrites) : !MayStandInside(word))) {
      return false;
    }
    is_insert_ = is_insert_ || (IsAtBeginning() && IsWord(word, "INSERT"));
    result_.text += word;
    at_ += word.size();
    value_may_follow_ = false;
    return true;
  }

  // When VALUES makes a table of its own, the type of its columns may depend on the values that stand there.
  bool MayStandInside(std::string_view word) const {
    return !IsOneOf(word, kMoreThanValues) && (!IsWord(word, "VALUES") || (is_insert_ && LastMark() != '('));
  }

  bool TakeNumber() {
    const std::size_t begin = at_;
    at_ += sql_[at_] == '-' ? 1 : 0;
    const std::size_t digits = WordLength();
    std::int64_t number = 0;
    const char* const first = sql_.data() + begin;
    const char* const last = sql_.data() + at_ + digits;
    // Anything but a plain integer (1.5, 0x10, 1e3) is not read to its end.
    if (digits == 0 || digits > kMaxDigits || std::from_chars(first, last, number).ptr != last ||
        (last != sql_.data() + sql_.size() && *last == '.')) {
      return false;
    }
    at_ += digits;
    return AddValue({false, number, {}});
  }

  bool TakeText() {
    std::string text;
    for (std::size_t begin = at_ + 1;;) {
      const std::size_t quote = sql_.find('\'', begin);
      if (quote == std::string_view::npos) {
        return false;
      }
      text += sql_.substr(begin, quote - begin);
      at_ = quote + 1;
      if (at_ == sql_.size() || sql_[at_] != '\'') {
        return AddValue({true, 0, std::move(text)});
      }
      text += '\'';  // a quote inside a text is written twice
      begin = at_ + 1;
    }
  }

  bool AddValue(SqlValue value) {
    if (!value_may_follow_ || result_.values.size() == kMaxValues) {
      return false;
    }
    value_may_follow_ = false;
    result_.values.push_back(std::move(value));
    result_.text += '?';
    return true;
  }

  bool IsAtBeginning() const { return LastMark() == '\0'; }

  // Gives the last character taken that is no blank; NUL before there is one.
  char LastMark() const {
    const std::size_t last = result_.text.find_last_not_of(" \t\r\n");
    return last == std::string::npos ? '\0' : result_.text[last];
  }

  std::size_t WordLength() const {
    const auto begin = sql_.begin() + static_cast<std::ptrdiff_t>(at_);
    return static_cast<std::size_t>(std::find_if_not(begin, sql_.end(), IsWordCharacter) - begin);
  }

  const std::string_view sql_;
  SqlTemplate& result_;
  std::size_t at_ = 0;
  bool is_insert_ = false;
  bool value_may_follow_ = false;  // only punctuation and blanks since "(", "," or "="
};

}  // namespace
}  // namespace details

bool MakeTemplate(std::string_view sql, SqlTemplate& result) {
  result.text.clear();
  result.values.clear();
  return details::CTemplateScanner(sql, result).Scan();
}

}  // namespace db_layer
