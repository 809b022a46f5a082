#include "TansyProto/XmlProto.h"

#include <pugixml.hpp>

#include <algorithm>
#include <unordered_map>
#include <utility>
#include <vector>

#include "TansyProto/DocumentPath.h"
#include "TansyProto/TextRules.h"
#include "TansyProto/XmlScanner.h"

namespace TansyProto {

namespace details {
namespace {

bool IsText(const pugi::xml_node& node) {
  return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
}

// A carriage return is written as a reference, because a reader turns a bare one into a line feed.
void AppendEscaped(std::string& text, std::string_view value, bool in_attribute) {
  for (const char c : value) {
    switch (c) {
      case '&':
        text += "&amp;";
        break;
      case '<':
        text += "&lt;";
        break;
      case '>':
        text += "&gt;";
        break;
      case '\r':
        text += "&#13;";
        break;
      case '"':
      case '\t':
      case '\n':
        if (in_attribute) {
          text += "&#" + std::to_string(static_cast<int>(c)) + ";";
          break;
        }
        [[fallthrough]];
      default:
        text += c;
    }
  }
}

void AppendStartTag(std::string& text, const pugi::xml_node& element) {
  text += '<';
  text += element.name();
  for (const auto& attribute : element.attributes()) {
    text += ' ';
    text += attribute.name();
    text += "=\"";
    AppendEscaped(text, attribute.value(), true);
    text += '"';
  }
  text += '>';
}

// The depth is at most kMaxDepth, because parsed and written documents both have this limit.
void AppendNode(std::string& text, const pugi::xml_node& node) {
  if (IsText(node)) {
    AppendEscaped(text, node.value(), false);
    return;
  }
  AppendStartTag(text, node);
  const std::size_t start = text.size();
  for (const auto& child : node.children()) {
    AppendNode(text, child);
  }
  if (text.size() == start) {
    text.back() = '/';
    text += '>';
    return;
  }
  text += "</";
  text += node.name();
  text += '>';
}

}  // namespace
}  // namespace details

struct CXmlProto::Impl {
  // Lists the elements of one name below one parent, so that any of them is found at once.
  struct List {
    std::string name;
    std::vector<pugi::xml_node> elements;
  };

  pugi::xml_node Find(const pugi::xml_node& parent, const PathStep& step);
  pugi::xml_node Find(const CDocumentPath& path);
  pugi::xml_node Make(const CDocumentPath& path);
  pugi::xml_node Append(pugi::xml_node parent, std::string_view name);
  bool MayMake(const pugi::xml_node& parent, const PathStep& step);
  List* FindList(const pugi::xml_node& parent, std::string_view name);
  List& MakeList(const pugi::xml_node& parent, std::string_view name);

  pugi::xml_document document;
  // The key is the parent. Elements are only ever added, so a list stays right once it is made.
  std::unordered_map<const void*, std::vector<List>> lists;
};

CXmlProto::Impl::List* CXmlProto::Impl::FindList(const pugi::xml_node& parent, std::string_view name) {
  const auto found = lists.find(parent.internal_object());
  if (found == lists.end()) {
    return nullptr;
  }
  const auto list = std::find_if(found->second.begin(), found->second.end(),
                                 [name](const List& candidate) { return candidate.name == name; });
  return list == found->second.end() ? nullptr : &*list;
}

CXmlProto::Impl::List& CXmlProto::Impl::MakeList(const pugi::xml_node& parent, std::string_view name) {
  List& list = lists[parent.internal_object()].emplace_back();
  list.name = name;
  for (const auto& child : parent.children()) {
    if (child.type() == pugi::node_element && child.name() == name) {
      list.elements.push_back(child);
    }
  }
  return list;
}

pugi::xml_node CXmlProto::Impl::Find(const pugi::xml_node& parent, const PathStep& step) {
  const List* list = FindList(parent, step.name);
  if (list == nullptr && step.index > 1) {
    list = &MakeList(parent, step.name);
  }
  if (list != nullptr) {
    const std::size_t position = std::max<std::size_t>(step.index, 1) - 1;
    return position < list->elements.size() ? list->elements[position] : pugi::xml_node();
  }
  return parent.find_child(
      [&step](const pugi::xml_node& child) { return child.type() == pugi::node_element && child.name() == step.name; });
}

pugi::xml_node CXmlProto::Impl::Find(const CDocumentPath& path) {
  if (!path.IsValid()) {
    return {};
  }
  pugi::xml_node node = document;
  for (const PathStep& step : path) {
    node = Find(node, step);
    if (!node) {
      break;
    }
  }
  return node;
}

// Checks the whole path before it makes anything, so that a refused path leaves the document as it was.
pugi::xml_node CXmlProto::Impl::Make(const CDocumentPath& path) {
  const bool names_hold =
      std::all_of(path.begin(), path.end(), [](const PathStep& step) { return IsXmlName(step.name); });
  if (!path.IsValid() || !names_hold) {
    return {};
  }
  pugi::xml_node node = document;
  const PathStep* step = path.begin();
  for (; step != path.end(); ++step) {
    const pugi::xml_node child = Find(node, *step);
    if (!child) {
      break;
    }
    node = child;
  }
  if (step == path.end()) {
    return node;
  }
  const bool is_next = MayMake(node, *step);
  const bool rest_is_first = std::all_of(step + 1, path.end(), [](const PathStep& later) { return later.index <= 1; });
  for (; is_next && rest_is_first && step != path.end(); ++step) {
    node = Append(node, step->name);
  }
  return is_next && rest_is_first ? node : pugi::xml_node();
}

// Returns true when the missing element of this step would be the next one of its name, and not a second root.
bool CXmlProto::Impl::MayMake(const pugi::xml_node& parent, const PathStep& step) {
  if (parent == document && document.document_element()) {
    return false;
  }
  if (step.index <= 1) {
    return true;
  }
  const List* list = FindList(parent, step.name);
  return list != nullptr && step.index == list->elements.size() + 1;
}

pugi::xml_node CXmlProto::Impl::Append(pugi::xml_node parent, std::string_view name) {
  const pugi::xml_node child = parent.append_child(std::string(name).c_str());
  if (List* list = FindList(parent, name)) {
    list->elements.push_back(child);
  }
  return child;
}

CXmlProto::CXmlProto() : impl_(std::make_unique<Impl>()) {}
CXmlProto::~CXmlProto() = default;
CXmlProto::CXmlProto(CXmlProto&&) noexcept = default;
CXmlProto& CXmlProto::operator=(CXmlProto&&) noexcept = default;

bool CXmlProto::Parse(std::string_view text) {
  impl_ = std::make_unique<Impl>();
  if (!CXmlScanner(text).Accepts()) {
    return false;
  }
  constexpr unsigned int kOptions =
      pugi::parse_cdata | pugi::parse_escapes | pugi::parse_eol | pugi::parse_wconv_attribute | pugi::parse_ws_pcdata;
  if (impl_->document.load_buffer(text.data(), text.size(), kOptions, pugi::encoding_utf8)) {
    return true;
  }
  impl_ = std::make_unique<Impl>();
  return false;
}

bool CXmlProto::Has(const std::string& path) const {
  return impl_ && impl_->Find(CDocumentPath(path));
}

std::string CXmlProto::GetString(const std::string& path, const std::string& missing) const {
  const pugi::xml_node element = impl_ ? impl_->Find(CDocumentPath(path)) : pugi::xml_node();
  if (!element) {
    return missing;
  }
  std::string text;
  for (const auto& child : element.children()) {
    if (details::IsText(child)) {
      text += child.value();
    }
  }
  return text;
}

std::int64_t CXmlProto::GetInt(const std::string& path, std::int64_t missing) const {
  std::int64_t value = 0;
  return ParseInteger(GetString(path), value) ? value : missing;
}

bool CXmlProto::SetString(const std::string& path, const std::string& value) {
  if (!SetEmpty(path)) {
    return false;
  }
  if (value.empty()) {
    return true;
  }
  pugi::xml_node element = impl_->Find(CDocumentPath(path));
  return element.prepend_child(pugi::node_pcdata).set_value(MakeCarriable(value, true).c_str());
}

bool CXmlProto::SetInt(const std::string& path, std::int64_t value) {
  return SetString(path, std::to_string(value));
}

bool CXmlProto::SetEmpty(const std::string& path) {
  if (!impl_) {
    impl_ = std::make_unique<Impl>();
  }
  pugi::xml_node element = impl_->Make(CDocumentPath(path));
  if (!element) {
    return false;
  }
  for (pugi::xml_node child = element.first_child(); child;) {
    const pugi::xml_node next = child.next_sibling();
    if (details::IsText(child)) {
      element.remove_child(child);
    }
    child = next;
  }
  return true;
}

bool CXmlProto::Serialize(std::string& text) const {
  const pugi::xml_node root = impl_ ? impl_->document.document_element() : pugi::xml_node();
  if (!root) {
    return false;
  }
  text = R"(<?xml version="1.0" encoding="UTF-8"?>)";
  details::AppendNode(text, root);
  return true;
}

}  // namespace TansyProto
