// Cuts the compiler's description of a function down to its qualified name, while the call site is compiled:
// "int Tansy::CloudStorage::CObjectServer::Init(const X&)" becomes "Tansy::CloudStorage::CObjectServer::Init".
//
// The same function gets the same name from every compiler as far as possible: unnamed namespaces and calling
// conventions are left out, a lambda goes by the name of the function that it stands in, template arguments of a
// function are left out, those of its class are kept.
#ifndef TANSY_LOGGING_QUALIFIED_NAME_H
#define TANSY_LOGGING_QUALIFIED_NAME_H

#include <cstddef>
#include <string_view>

namespace logging {

// `Length` includes the terminating NUL of the compiler's text, which is never shorter than the name.
template <std::size_t Length>
struct QualifiedName {
  char text[Length]{};
};

namespace details {

// The positions of the name inside the compiler's text.
struct NameRange {
  std::size_t begin = 0;
  std::size_t end = 0;
};

constexpr bool IsWordCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// Returns true when the whole word `word` stands at `at`.
constexpr bool WordAt(std::string_view text, std::size_t at, std::string_view word) {
  return text.substr(at, word.size()) == word && (at == 0 || !IsWordCharacter(text[at - 1])) &&
         (at + word.size() == text.size() || !IsWordCharacter(text[at + word.size()]));
}

// Gives the position after the bracket that closes the one at `open`, or the text's end when none does.
constexpr std::size_t AfterGroup(std::string_view text, std::size_t open) {
  int depth = 0;
  for (std::size_t i = open; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '(' || c == '[' || c == '{' || c == '<') {
      ++depth;
    } else if (c == ')' || c == ']' || c == '}' || (c == '>' && text[i - 1] != '-')) {
      if (--depth == 0) {
        return i + 1;
      }
    }
  }
  return text.size();
}

// Gives the position of the parameter list after the word "operator" at `at`.
constexpr std::size_t AfterOperator(std::string_view text, std::size_t at) {
  std::size_t i = at + std::string_view("operator").size();
  const std::size_t call = text.substr(i, 1) == " " ? i + 1 : i;  // one compiler writes "operator ()"
  if (text.substr(call, 2) == "()") {
    return call + 2;
  }
  while (i < text.size() && text[i] != '(') {
    // Brackets of a type ("operator std::vector<int>") are skipped as a group, those of "operator<" are plain signs.
    i = text[i] == '<' && IsWordCharacter(text[i - 1]) && !WordAt(text, i - 8, "operator") ? AfterGroup(text, i)
                                                                                           : i + 1;
  }
  return i;
}

// Returns true when the "(" at `open` does not open a parameter list but belongs to a type or to a namespace without a
// name.
constexpr bool IsForeignGroup(std::string_view text, std::size_t open) {
  const std::string_view rest = text.substr(open);
  if (rest.starts_with("(anonymous") || rest.starts_with("(unnamed")) {
    return true;
  }
  for (const std::string_view word : {"decltype", "noexcept", "requires"}) {
    const std::size_t blank = open > 0 && text[open - 1] == ' ' ? 1 : 0;
    if (open >= word.size() + blank && WordAt(text, open - word.size() - blank, word)) {
      return true;
    }
  }
  return false;
}

constexpr NameRange FindName(std::string_view text) {
  NameRange range;
  std::size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (WordAt(text, i, "operator")) {
      range.end = AfterOperator(text, i);
      return range;
    }
    if (c == '(' && (text.substr(i, 2) == "(*" || text.substr(i, 2) == "(&")) {
      range.begin = ++i;  // a function that returns a pointer to a function: "void (* Name(int))(char)"
    } else if ((c == '(' && !IsForeignGroup(text, i)) || c == '[') {
      break;  // the parameter list, an ABI tag, or the list of template arguments
    } else if (c == '(' || c == '<' || c == '{') {
      i = AfterGroup(text, i);
    } else {
      range.begin = c == ' ' || c == '*' || c == '&' ? i + 1 : range.begin;
      ++i;
    }
  }
  range.end = i;
  return range;
}

// Leaves the arguments of a function template out: "Convert<int>" becomes "Convert".
constexpr std::size_t WithoutArguments(std::string_view text, NameRange range) {
  if (range.end == 0 || text[range.end - 1] != '>') {
    return range.end;
  }
  for (std::size_t i = range.begin; i < range.end; ++i) {
    if (WordAt(text, i, "operator")) {
      return range.end;
    }
    if (text[i] == '<') {
      const std::size_t after = AfterGroup(text, i);
      if (after == range.end && i > range.begin && IsWordCharacter(text[i - 1])) {
        return i;
      }
      i = after - 1;
    }
  }
  return range.end;
}

// Gives the length of the name of an unnamed namespace at `at` with the "::" after it; 0 when there is none.
constexpr std::size_t UnnamedNamespaceAt(std::string_view text, std::size_t at) {
  for (const std::string_view name :
       {"{anonymous}::", "(anonymous namespace)::", "`anonymous-namespace'::", "<unnamed>::"}) {
    if (text.substr(at, name.size()) == name) {
      return name.size();
    }
  }
  return 0;
}

}  // namespace details

template <std::size_t Length>
consteval QualifiedName<Length> CutQualifiedName(const char (&pretty)[Length]) {
  const std::string_view text(pretty, Length - 1);
  const details::NameRange range = details::FindName(text);
  const std::size_t end = details::WithoutArguments(text, range);
  QualifiedName<Length> name;
  std::size_t length = 0;
  for (std::size_t i = range.begin; i < end;) {
    if (const std::size_t skipped = details::UnnamedNamespaceAt(text, i); skipped != 0) {
      i += skipped;
    } else {
      name.text[length++] = text[i++];
    }
  }
  return name;
}

}  // namespace logging

#endif  // TANSY_LOGGING_QUALIFIED_NAME_H
