#include "TansyProto/RapidJsonProto.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <utility>

#include "TansyProto/DocumentPath.h"
#include "TansyProto/TextRules.h"

namespace TansyProto {

namespace details {
namespace {

// `at` stands on the backslash of an escape, and on the last character of it afterwards. Returns false for the second
// half of a surrogate pair without its first, because the parser would make bytes of it that are not UTF-8.
bool SkipEscape(std::string_view text, std::size_t& at) {
  constexpr std::size_t kEscape = 6;  // "\uD83D"
  unsigned unit = 0;
  const std::string_view digits = text.substr(at).starts_with("\\u") ? text.substr(at + 2, 4) : std::string_view();
  const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), unit, 16);
  if (digits.size() < 4 || parsed.ptr != digits.data() + 4) {
    ++at;
    return true;
  }
  const bool is_first_half = unit >= 0xD800 && unit <= 0xDBFF;
  // The parser checks that a second half follows.
  at += (is_first_half ? 2 * kEscape : kEscape) - 1;
  return unit < 0xDC00 || unit > 0xDFFF;
}

// Checks depth and number of values by the brackets and commas outside strings. Text that is no JSON may pass; the
// parser then refuses it, within these limits.
bool IsWithinLimits(std::string_view text) {
  if (text.size() > kMaxDocumentBytes || text.find('\0') != std::string_view::npos) {
    return false;  // the parser takes a NUL byte for the end of the text
  }
  std::size_t depth = 0;
  std::size_t values = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') {
      in_string = !in_string;
    } else if (in_string) {
      if (c == '\\' && !SkipEscape(text, i)) {
        return false;
      }
    } else if (c == '[' || c == '{') {
      ++values;
      ++depth;
    } else if (c == ']' || c == '}') {
      depth -= depth > 0 ? 1 : 0;
    } else if (c == ',') {
      ++values;
    }
    if (depth > kMaxDepth || values > kMaxDocumentValues) {
      return false;
    }
  }
  return true;
}

using Value = rapidjson::Value;

// Gives the value of a step below an object; null when it is not there.
const Value* FindStep(const Value& parent, const PathStep& step) {
  if (!parent.IsObject()) {
    return nullptr;
  }
  const Value name(rapidjson::StringRef(step.name.data(), static_cast<rapidjson::SizeType>(step.name.size())));
  const auto member = parent.FindMember(name);
  if (member == parent.MemberEnd()) {
    return nullptr;
  }
  if (step.index == 0) {
    return &member->value;
  }
  const bool is_there = member->value.IsArray() && step.index <= member->value.Size();
  return is_there ? &member->value[static_cast<rapidjson::SizeType>(step.index - 1)] : nullptr;
}

// The parser turns numbers that are too large into infinities, and the writer stops at one. The depth is at most
// kMaxDepth.
bool IsFinite(const Value& value) {
  if (value.IsArray()) {
    return std::all_of(value.Begin(), value.End(), IsFinite);
  }
  if (value.IsObject()) {
    return std::all_of(value.MemberBegin(), value.MemberEnd(),
                       [](const auto& member) { return IsFinite(member.value); });
  }
  return !value.IsDouble() || std::isfinite(value.GetDouble());
}

std::string ToText(const Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return {buffer.GetString(), buffer.GetSize()};
}

// A document that was moved from is an empty document again.
template <typename Impl>
Impl& Ensure(std::unique_ptr<Impl>& impl) {
  if (!impl) {
    impl = std::make_unique<Impl>();
  }
  return *impl;
}

// Gives the text of a value that is neither object, array nor null.
bool TextOf(const Value& value, std::string& text) {
  if (value.IsNull() || value.IsObject() || value.IsArray()) {
    return false;
  }
  text = value.IsString() ? std::string(value.GetString(), value.GetStringLength()) : ToText(value);
  return true;
}

EJsonKind KindOf(const Value& value) {
  if (value.IsNumber()) {
    return value.IsInt64() ? EJsonKind::kInteger : EJsonKind::kOtherNumber;
  }
  if (value.IsBool()) {
    return EJsonKind::kBoolean;
  }
  if (value.IsString()) {
    return EJsonKind::kText;
  }
  if (value.IsArray()) {
    return EJsonKind::kList;
  }
  return value.IsObject() ? EJsonKind::kObject : EJsonKind::kNull;
}

bool IsUtf8(std::string_view text) {
  return MakeCarriable(text, false) == text;
}

}  // namespace
}  // namespace details

struct CRapidJsonProto::Impl {
  Impl() { document.SetObject(); }

  const rapidjson::Value* Find(const std::string& path) const;
  // Gives the place of a value that is not an array or object, and makes it when it is missing; null when the path does
  // not allow it.
  rapidjson::Value* Make(const std::string& path);
  rapidjson::Value* Append(rapidjson::Value& parent, const PathStep& step);
  static bool MayMake(const rapidjson::Value& parent, const PathStep& step);

  rapidjson::Document document;
};

const rapidjson::Value* CRapidJsonProto::Impl::Find(const std::string& path) const {
  const CDocumentPath steps(path);
  const rapidjson::Value* value = steps.IsValid() ? &document : nullptr;
  for (const PathStep& step : steps) {
    value = value == nullptr ? nullptr : details::FindStep(*value, step);
  }
  return value;
}

// Checks the whole path before it makes anything, so that a refused path leaves the document as it was.
rapidjson::Value* CRapidJsonProto::Impl::Make(const std::string& path) {
  const CDocumentPath steps(path);
  if (!steps.IsValid() || !details::IsUtf8(path)) {
    return nullptr;
  }
  rapidjson::Value* value = &document;
  const PathStep* step = steps.begin();
  for (; step != steps.end(); ++step) {
    const rapidjson::Value* next = details::FindStep(*value, *step);
    if (next == nullptr) {
      break;
    }
    value = const_cast<rapidjson::Value*>(next);
  }
  if (step == steps.end()) {
    return value->IsObject() || value->IsArray() ? nullptr : value;
  }
  const bool rest_is_first = std::all_of(step + 1, steps.end(), [](const PathStep& later) { return later.index <= 1; });
  if (!MayMake(*value, *step) || !rest_is_first) {
    return nullptr;
  }
  for (; step != steps.end(); ++step) {
    value = Append(*value, *step);
  }
  return value;
}

bool CRapidJsonProto::Impl::MayMake(const rapidjson::Value& parent, const PathStep& step) {
  if (!parent.IsObject()) {
    return false;
  }
  const rapidjson::Value* list = details::FindStep(parent, {step.name, 0});
  if (list == nullptr) {
    return step.index <= 1;
  }
  return list->IsArray() && step.index == list->Size() + 1;
}

// Adds a new value for a step that is missing; `parent` becomes an object when it was only just made.
rapidjson::Value* CRapidJsonProto::Impl::Append(rapidjson::Value& parent, const PathStep& step) {
  auto& allocator = document.GetAllocator();
  if (parent.IsNull()) {
    parent.SetObject();
  }
  rapidjson::Value* member = const_cast<rapidjson::Value*>(details::FindStep(parent, {step.name, 0}));
  if (member == nullptr) {
    rapidjson::Value name(step.name.data(), static_cast<rapidjson::SizeType>(step.name.size()), allocator);
    parent.AddMember(name, rapidjson::Value(), allocator);
    member = &(parent.MemberEnd() - 1)->value;
  }
  if (step.index == 0) {
    return member;
  }
  if (!member->IsArray()) {
    member->SetArray();
  }
  member->PushBack(rapidjson::Value(), allocator);
  return &(*member)[member->Size() - 1];
}

CRapidJsonProto::CRapidJsonProto() : impl_(std::make_unique<Impl>()) {}
CRapidJsonProto::~CRapidJsonProto() = default;
CRapidJsonProto::CRapidJsonProto(CRapidJsonProto&&) noexcept = default;
CRapidJsonProto& CRapidJsonProto::operator=(CRapidJsonProto&&) noexcept = default;

bool CRapidJsonProto::Parse(std::string_view text) {
  impl_ = std::make_unique<Impl>();
  if (!details::IsWithinLimits(text)) {
    return false;
  }
  // kParseFullPrecisionFlag is left out, because with it RapidJSON 1.1 reads beyond a table when a number has hundreds
  // of digits.
  constexpr unsigned kOptions = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag;
  impl_->document.Parse<kOptions>(text.data(), text.size());
  if (!impl_->document.HasParseError() && details::IsFinite(impl_->document)) {
    return true;
  }
  impl_ = std::make_unique<Impl>();
  return false;
}

bool CRapidJsonProto::Has(const std::string& path) const {
  return impl_ && impl_->Find(path) != nullptr;
}

EJsonKind CRapidJsonProto::GetKind(const std::string& path) const {
  const rapidjson::Value* value = impl_ ? impl_->Find(path) : nullptr;
  return value != nullptr ? details::KindOf(*value) : EJsonKind::kMissing;
}

std::string CRapidJsonProto::GetString(const std::string& path, const std::string& missing) const {
  const rapidjson::Value* value = impl_ ? impl_->Find(path) : nullptr;
  std::string text;
  return value != nullptr && details::TextOf(*value, text) ? text : missing;
}

std::size_t CRapidJsonProto::GetCount(const std::string& path) const {
  const rapidjson::Value* value = impl_ ? impl_->Find(path) : nullptr;
  return value != nullptr && value->IsArray() ? value->Size() : 0;
}

std::vector<std::pair<std::string, std::string>> CRapidJsonProto::GetMembers(const std::string& path) const {
  std::vector<std::pair<std::string, std::string>> members;
  const rapidjson::Value* value = impl_ ? impl_->Find(path) : nullptr;
  if (value == nullptr || !value->IsObject()) {
    return members;
  }
  for (const auto& member : value->GetObject()) {
    std::string text;
    if (details::TextOf(member.value, text)) {
      members.emplace_back(std::string(member.name.GetString(), member.name.GetStringLength()), std::move(text));
    }
  }
  return members;
}

std::vector<std::string> CRapidJsonProto::GetNames() const {
  std::vector<std::string> names;
  if (!impl_ || !impl_->document.IsObject()) {
    return names;
  }
  for (const auto& member : impl_->document.GetObject()) {
    names.emplace_back(member.name.GetString(), member.name.GetStringLength());
  }
  return names;
}

std::int64_t CRapidJsonProto::GetInt(const std::string& path, std::int64_t missing) const {
  const rapidjson::Value* value = impl_ ? impl_->Find(path) : nullptr;
  if (value == nullptr) {
    return missing;
  }
  if (value->IsInt64()) {
    return value->GetInt64();
  }
  std::int64_t parsed = 0;
  const bool is_integer = value->IsString() && ParseInteger({value->GetString(), value->GetStringLength()}, parsed);
  return is_integer ? parsed : missing;
}

bool CRapidJsonProto::SetString(const std::string& path, const std::string& text) {
  rapidjson::Value* value = details::Ensure(impl_).Make(path);
  if (value != nullptr) {
    const std::string carriable = MakeCarriable(text, false);
    const auto size = static_cast<rapidjson::SizeType>(carriable.size());
    value->SetString(carriable.data(), size, impl_->document.GetAllocator());
  }
  return value != nullptr;
}

bool CRapidJsonProto::SetInt(const std::string& path, std::int64_t number) {
  rapidjson::Value* value = details::Ensure(impl_).Make(path);
  if (value != nullptr) {
    value->SetInt64(number);
  }
  return value != nullptr;
}

bool CRapidJsonProto::SetBool(const std::string& path, bool flag) {
  rapidjson::Value* value = details::Ensure(impl_).Make(path);
  if (value != nullptr) {
    value->SetBool(flag);
  }
  return value != nullptr;
}

bool CRapidJsonProto::SetNumber(const std::string& path, double number) {
  rapidjson::Value* value = std::isfinite(number) ? details::Ensure(impl_).Make(path) : nullptr;
  if (value != nullptr) {
    value->SetDouble(number);
  }
  return value != nullptr;
}

bool CRapidJsonProto::SetList(const std::string& path) {
  auto& impl = details::Ensure(impl_);
  if (impl.Find(path) != nullptr) {
    return false;
  }
  rapidjson::Value* value = impl.Make(path);
  if (value != nullptr) {
    value->SetArray();
  }
  return value != nullptr;
}

std::string CRapidJsonProto::Serialize() const {
  return impl_ ? details::ToText(impl_->document) : "{}";
}

std::string CRapidJsonProto::Serialize(const std::string& path) const {
  const rapidjson::Value* value = impl_ ? impl_->Find(path) : nullptr;
  return value != nullptr ? details::ToText(*value) : std::string();
}

}  // namespace TansyProto
