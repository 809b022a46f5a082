#include "NewKeyRequest.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>

#include "PrintableText.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Host {
namespace details {
namespace {

using TansyProto::CRapidJsonProto;
using TansyProto::EJsonKind;

constexpr std::array<std::string_view, 4> kNames = {"name", "buckets", "read_only", "expires"};

bool IsKindOrMissing(const CRapidJsonProto& asked, const std::string& path, EJsonKind kind) {
  const EJsonKind found = asked.GetKind(path);
  return found == kind || found == EJsonKind::kMissing;
}

std::string CheckNames(const CRapidJsonProto& asked) {
  std::set<std::string> seen;
  for (const std::string& name : asked.GetNames()) {
    if (std::find(kNames.begin(), kNames.end(), name) == kNames.end()) {
      return "there is no " + Printable(name) + ": a key has name, buckets, read_only and expires";
    }
    if (!seen.insert(name).second) {
      return "say " + name + " once";
    }
  }
  return "";
}

std::string ReadBuckets(Key& key, const CRapidJsonProto& asked) {
  constexpr const char* kWrong = "buckets has to be a list of names: [\"photos\"]";
  if (!IsKindOrMissing(asked, "/buckets", EJsonKind::kList)) {
    return kWrong;
  }
  for (std::size_t i = 1; i <= asked.GetCount("/buckets"); ++i) {
    const std::string at = "/buckets[" + std::to_string(i) + "]";
    if (asked.GetKind(at) != EJsonKind::kText) {
      return kWrong;
    }
    key.buckets.push_back(asked.GetString(at));
  }
  return "";
}

}  // namespace
}  // namespace details

std::string ReadNewKey(Key& key, const std::string& json) {
  using details::IsKindOrMissing;
  using TansyProto::EJsonKind;
  TansyProto::CRapidJsonProto asked;
  if (!asked.Parse(json)) {
    return "send JSON";
  }
  if (std::string wrong = details::CheckNames(asked); !wrong.empty()) {
    return wrong;
  }
  if (asked.GetKind("/name") != EJsonKind::kText) {
    return "name has to be a text: \"guest\"";
  }
  if (!IsKindOrMissing(asked, "/read_only", EJsonKind::kBoolean)) {
    return "read_only has to be true or false";
  }
  if (!IsKindOrMissing(asked, "/expires", EJsonKind::kInteger)) {
    return "expires has to be an integer: seconds since 1970, or 0 for never";
  }
  key.name = asked.GetString("/name");
  key.read_only = asked.GetString("/read_only") == "true";
  key.expires = asked.GetInt("/expires", 0);
  return details::ReadBuckets(key, asked);
}

}  // namespace Tansy::Host
