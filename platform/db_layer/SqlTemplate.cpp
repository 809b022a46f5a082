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

enum class Kind : unsigned char { kOther, kBlank, kMark, kQuote, kMinus, kDigit, kLetter };

constexpr Kind KindOf(char c) {
  switch (c) {
    case ' ':
    case '\t':
    case '\r':
    case '\n':
      return Kind::kBlank;
    case '(':
    case ')':
    case ',':
    case '.':
    case '=':
    case ';':
      return Kind::kMark;
    case '\'':
      return Kind::kQuote;
    case '-':
      return Kind::kMinus;
    default:
      break;
  }
  if (c >= '0' && c <= '9') {
    return Kind::kDigit;
  }
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ? Kind::kLetter : Kind::kOther;
}

// The kind of every character, because this is asked for each one of each statement.
constexpr std::array<Kind, 256> kKinds = [] {
  std::array<Kind, 256> kinds{};
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    kinds[i] = KindOf(static_cast<char>(i));
  }
  return kinds;
}();

Kind KindAt(std::string_view text, std::size_t at) {
  return kKinds[static_cast<unsigned char>(text[at])];
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
    CopyTo(at_);
    return !result_.values.empty();
  }

 private:
  bool TakeNext() {
    switch (KindAt(sql_, at_)) {
      case Kind::kBlank:
        ++at_;
        return true;
      case Kind::kMark:
        return TakeMark();
      case Kind::kQuote:
        return TakeText();
      case Kind::kMinus:
      case Kind::kDigit:
        return TakeNumber();
      case Kind::kLetter:
        return TakeWord();
      case Kind::kOther:
        break;
    }
    return false;
  }

  bool TakeMark() {
    const bool is_first = IsAtBeginning();
    last_mark_ = sql_[at_++];
    value_may_follow_ = last_mark_ == '(' || last_mark_ == ',' || last_mark_ == '=';
    return !is_first;
  }

  bool TakeWord() {
    const std::string_view word = sql_.substr(at_, WordLength());
    if (IsAtBeginning() ? !IsOneOf(word, kWrites) : !MayStandInside(word)) {
      return false;
    }
    is_insert_ = is_insert_ || (IsAtBeginning() && IsWord(word, "INSERT"));
    last_mark_ = word.back();
    at_ += word.size();
    value_may_follow_ = false;
    return true;
  }

  // When VALUES makes a table of its own, the type of its columns may depend on the values that stand there.
  bool MayStandInside(std::string_view word) const {
    return !IsOneOf(word, kMoreThanValues) && (!IsWord(word, "VALUES") || (is_insert_ && last_mark_ != '('));
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
    return AddValue(begin, {false, number, {}});
  }

  bool TakeText() {
    const std::size_t start = at_;
    std::string text;
    for (std::size_t begin = at_ + 1;;) {
      const std::size_t quote = sql_.find('\'', begin);
      if (quote == std::string_view::npos) {
        return false;
      }
      text += sql_.substr(begin, quote - begin);
      at_ = quote + 1;
      if (at_ == sql_.size() || sql_[at_] != '\'') {
        return AddValue(start, {true, 0, std::move(text)});
      }
      text += '\'';  // a quote inside a text is written twice
      begin = at_ + 1;
    }
  }

  // The value stood at `begin`, and what follows it stands at at_.
  bool AddValue(std::size_t begin, SqlValue value) {
    if (!value_may_follow_ || result_.values.size() == kMaxValues) {
      return false;
    }
    value_may_follow_ = false;
    result_.values.push_back(std::move(value));
    CopyTo(begin);
    result_.text += '?';
    last_mark_ = '?';
    copied_ = at_;
    return true;
  }

  // Takes the text up to `end` over as it is.
  void CopyTo(std::size_t end) {
    result_.text += sql_.substr(copied_, end - copied_);
    copied_ = end;
  }

  bool IsAtBeginning() const { return last_mark_ == '\0'; }

  std::size_t WordLength() const {
    std::size_t end = at_;
    while (end < sql_.size() && KindAt(sql_, end) >= Kind::kDigit) {
      ++end;
    }
    return end - at_;
  }

  const std::string_view sql_;
  SqlTemplate& result_;
  std::size_t at_ = 0;
  std::size_t copied_ = 0;  // up to here the text stands in the result
  char last_mark_ = '\0';   // the last character taken that is no blank; NUL before there is one
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
