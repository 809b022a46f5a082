#include "TansyNet/wire/MultipartForm.h"

#include <algorithm>
#include <optional>
#include <string>

#include "TansyNet/wire/HeaderNames.h"

namespace TansyNet {
namespace details {
namespace {

constexpr std::string_view kLineEnd = "\r\n";

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && IsBlank(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

// Takes one `name=value` parameter from the front of `text`. The value may be quoted, and may then hold anything but a
// quote. A backslash is an ordinary character there, because browsers send file names of Windows that way.
struct Parameter {
  std::string_view name;
  std::string_view value;
};

Parameter TakeParameter(std::string_view& text) {
  const std::size_t name_end = std::min(text.find_first_of("=;"), text.size());
  Parameter parameter{.name = Trim(text.substr(0, name_end)), .value = {}};
  text.remove_prefix(name_end);
  if (text.empty() || text.front() == ';') {
    text.remove_prefix(std::min<std::size_t>(1, text.size()));
    return parameter;
  }
  text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.front())) {
    text.remove_prefix(1);
  }
  if (text.starts_with('"')) {
    text.remove_prefix(1);
    const std::size_t quote = std::min(text.find('"'), text.size());
    parameter.value = text.substr(0, quote);
    text.remove_prefix(quote);
    text.remove_prefix(std::min(text.find(';'), text.size()));
  } else {
    const std::size_t end = std::min(text.find(';'), text.size());
    parameter.value = Trim(text.substr(0, end));
    text.remove_prefix(end);
  }
  text.remove_prefix(std::min<std::size_t>(1, text.size()));
  return parameter;
}

std::string_view FindParameter(std::string_view text, std::string_view name) {
  while (!text.empty()) {
    const Parameter parameter = TakeParameter(text);
    if (EqualNoCase(parameter.name, name)) {
      return parameter.value;
    }
  }
  return {};
}

std::string_view BoundaryOf(std::string_view content_type) {
  constexpr std::string_view kFormType = "multipart/form-data";
  // RFC 2046 allows 70 characters. Longer boundaries are accepted up to a length that no sender needs.
  constexpr std::size_t kLongest = std::size_t{10} * 1024;
  const std::size_t type_end = std::min(content_type.find(';'), content_type.size());
  if (!EqualNoCase(Trim(content_type.substr(0, type_end)), kFormType) || type_end == content_type.size()) {
    return {};
  }
  const std::string_view boundary = FindParameter(content_type.substr(type_end + 1), "boundary");
  return boundary.size() > kLongest ? std::string_view() : boundary;
}

// Goes from boundary to boundary through a body.
class CBoundaryWalker {
 public:
  CBoundaryWalker(std::string_view body, std::string_view boundary) : body_(body), delimiter_("\r\n--") {
    delimiter_ += boundary;
  }

  // Moves behind the first boundary, which has no line end before it when the body begins with it.
  bool Start() {
    const std::string_view bare = std::string_view(delimiter_).substr(kLineEnd.size());
    if (body_.starts_with(bare) && EndsLine(bare.size())) {
      position_ = bare.size();
      return true;
    }
    return NextPart().has_value();
  }

  // Gives everything up to the next boundary, or up to the body's end when there is none.
  std::optional<std::string_view> NextPart() {
    const std::size_t begin = position_;
    for (std::size_t from = begin;;) {
      const std::size_t found = body_.find(delimiter_, from);
      if (found == std::string_view::npos) {
        return std::nullopt;
      }
      if (EndsLine(found + delimiter_.size())) {
        position_ = found + delimiter_.size();
        return body_.substr(begin, found - begin);
      }
      from = found + 1;
    }
  }

  std::string_view Rest() const { return body_.substr(position_); }

  // Says whether the boundary just passed is the last one.
  bool IsAtEnd() const { return Rest().starts_with("--"); }

  // Moves to the line after the boundary; returns false when there is none.
  bool SkipLine() {
    const std::size_t line_end = body_.find(kLineEnd, position_);
    if (line_end == std::string_view::npos) {
      return false;
    }
    position_ = line_end;
    return true;
  }

 private:
  // Another boundary may begin like this one and go on with other characters, so the line must end here.
  bool EndsLine(std::size_t position) const {
    std::string_view rest = body_.substr(position);
    if (rest.empty() || rest.starts_with("--")) {
      return true;
    }
    const std::size_t text = std::min(rest.find_first_not_of(" \t"), rest.size());
    return rest.substr(text).starts_with(kLineEnd) || text == rest.size();
  }

  std::string_view body_;
  std::string delimiter_;
  std::size_t position_ = 0;
};

void TakePartHeader(std::string_view line, FormPart& part) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) {
    return;
  }
  const std::string_view name = Trim(line.substr(0, colon));
  const std::string_view value = Trim(line.substr(colon + 1));
  if (EqualNoCase(name, "Content-Type")) {
    part.content_type = value;
  } else if (EqualNoCase(name, "Content-Disposition")) {
    part.name = FindParameter(value, "name");
    part.file_name = FindParameter(value, "filename");
  }
}

// Parses a part. `text` begins with the line end of the boundary; header lines follow, an empty line, and the data.
FormPart ParsePart(std::string_view text) {
  FormPart part;
  text.remove_prefix(std::min(kLineEnd.size(), text.size()));
  for (;;) {
    const std::size_t line_end = text.find(kLineEnd);
    if (line_end == std::string_view::npos) {
      return part;  // the text ends within the header
    }
    const std::string_view line = text.substr(0, line_end);
    text.remove_prefix(line_end + kLineEnd.size());
    if (line.empty()) {
      part.data = text;
      return part;
    }
    TakePartHeader(line, part);
  }
}

}  // namespace
}  // namespace details

bool ParseMultipartForm(std::string_view content_type, std::string_view body, std::vector<FormPart>& parts,
                        std::size_t max_parts) {
  parts.clear();
  const std::string_view boundary = details::BoundaryOf(content_type);
  if (boundary.empty()) {
    return false;
  }
  details::CBoundaryWalker walker(body, boundary);
  if (!walker.Start()) {
    return false;
  }
  while (parts.size() < max_parts && !walker.IsAtEnd() && walker.SkipLine()) {
    const std::string_view rest = walker.Rest();
    const std::optional<std::string_view> part = walker.NextPart();
    parts.push_back(details::ParsePart(part.value_or(rest)));
    if (!part) {
      break;
    }
  }
  return true;
}

}  // namespace TansyNet
