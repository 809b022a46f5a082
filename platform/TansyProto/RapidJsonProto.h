#ifndef TANSY_PROTO_RAPID_JSON_PROTO_H
#define TANSY_PROTO_RAPID_JSON_PROTO_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace TansyProto {

// What a value of a JSON document is. An integer is one that fits into 64 bits with its sign, written without fraction
// and exponent.
enum class EJsonKind { kMissing, kNull, kBoolean, kInteger, kOtherNumber, kText, kList, kObject };

// A JSON document read and written by slash paths: "/A/B" is member B of member A of the root object; "/List[1]/PoolID"
// is member PoolID of the first element (counted from 1) of the array List. Writing creates what is missing, in the
// order of the calls; an index may be at most one beyond what exists. A path has at most 64 steps. Threads: one
// document belongs to one thread at a time. Nothing throws. A new document, one that was moved from and one whose
// parsing failed are an empty object. It has the functions of CXmlProto; a common base would put a virtual call before
// each of them for callers who always know which document they have.
class CRapidJsonProto {
 public:
  CRapidJsonProto();
  ~CRapidJsonProto();
  CRapidJsonProto(CRapidJsonProto&&) noexcept;
  CRapidJsonProto& operator=(CRapidJsonProto&&) noexcept;

  // Replaces the document. Returns false, and leaves an empty document, when the text is not one JSON value in UTF-8,
  // nests deeper than 64 levels, is longer than 64 MiB, holds more than a million values, or a number beyond what a
  // double holds.
  bool Parse(std::string_view text);

  bool Has(const std::string& path) const;
  // Says what is there, for those who must not take one kind for another, as the next functions do.
  EJsonKind GetKind(const std::string& path) const;
  // Gives a string member as it is, a number or boolean as its text (integers of 64 bits to the last digit, fractions
  // nearly), and `missing` otherwise.
  std::string GetString(const std::string& path, const std::string& missing = {}) const;
  // Gives an integer member, or a string member that is a decimal integer, and `missing` otherwise.
  std::int64_t GetInt(const std::string& path, std::int64_t missing = -1) const;

  // Gives the number of values of an array; 0 when there is none at that path.
  std::size_t GetCount(const std::string& path) const;
  // Gives the members of an object in their order, each as GetString would; it is empty when there is none at that
  // path. Members that are objects or arrays are left out.
  std::vector<std::pair<std::string, std::string>> GetMembers(const std::string& path) const;
  // Gives the names of all members of the root object in their order; it is empty when the root is no object.
  std::vector<std::string> GetNames() const;

  // Returns false, with the document as it was, when the path is malformed, skips an index, leads through a value that
  // is no object, or ends at an object or array. Bytes that are not UTF-8 are each written as U+FFFD.
  bool SetString(const std::string& path, const std::string& value);
  bool SetInt(const std::string& path, std::int64_t value);
  bool SetBool(const std::string& path, bool value);
  // It also refuses what is no finite number.
  bool SetNumber(const std::string& path, double value);
  // Makes an empty array, to which values are added by their index. Returns false when there is something already.
  bool SetList(const std::string& path);

  // Gives the document as compact text.
  std::string Serialize() const;
  // Does so for the value at a path; the text is empty when there is none.
  std::string Serialize(const std::string& path) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace TansyProto

#endif  // TANSY_PROTO_RAPID_JSON_PROTO_H
