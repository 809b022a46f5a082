// Texts of the S3 protocol: percent-encoding, hexadecimal digits, and how keys become object names. Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_TEXT_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_TEXT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "StorageServer/ObjectServer/KeyOrder.h"
#include "TansyNet/HttpServer.h"
#include "TansyNet/S3Signing.h"

namespace Tansy::CloudStorage::S3 {

// The longest key, in bytes before any encoding.
inline constexpr std::size_t kMaxKeyBytes = 1024;

using TansyNet::S3Signing::PercentDecode;
using TansyNet::S3Signing::PercentEncode;
using TansyNet::S3Signing::PercentEncodePath;
using TansyNet::S3Signing::ToHex;

// A key becomes the name of an object, under which the object protocol finds it too: its percent-encoded form. A name
// that nothing needs to be encoded in is the same for both protocols. It is the canonical name of the key (KeyOrder.h).
std::string NameOfKey(std::string_view key);
// The key of an object, whatever protocol named it: names that differ in their encoding only have the same key.
using CloudStorage::KeyOfName;

// Recognises `digits` hexadecimal digits, in either case.
bool IsHex(std::string_view text, std::size_t digits);

// Removes blanks and tabs at both ends.
std::string_view Trim(std::string_view text);
// Compares two texts in a time that depends on their lengths only.
bool EqualInConstantTime(std::string_view left, std::string_view right);
std::string ToLower(std::string_view text);
// Reads decimal digits. Returns false for anything else, for nothing, and for what 64 bits do not hold.
bool ParseDecimal(std::string_view text, std::uint64_t& value);

// The parameters of a query as they were meant: decoded, in the order in which they were sent. A parameter without "="
// has an empty value.
struct QueryParameter {
  std::string name;
  std::string value;
};
using Query = std::vector<QueryParameter>;
// "+" stands for a blank. Empty pieces are left out.
Query ParseQuery(std::string_view query);
// Gives the first value of a parameter; null when there is none of this name.
const std::string* FindParameter(const Query& query, std::string_view name);
// Gives the value, or "" when there is none.
std::string ParameterOrEmpty(const Query& query, std::string_view name);

// The headers of a request by lower-case name.
using LowerHeaders = std::map<std::string, std::string, std::less<>>;
LowerHeaders LowerNames(const TansyNet::Headers& headers);
// Gives the value of a header; it is empty when there is none. The text lives as long as the headers.
const std::string& ValueOf(const LowerHeaders& headers, std::string_view lower_name);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_TEXT_H
