#include "ConsolePage.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::string_view kPageName = "index.html";
constexpr const char* kAskAgain = "no-cache";
constexpr const char* kKeep = "public, max-age=31536000, immutable";

constexpr std::array<std::pair<std::string_view, const char*>, 11> kTypes = {{
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".json", "application/json"},
    {".svg", "image/svg+xml"},
    {".png", "image/png"},
    {".ico", "image/x-icon"},
    {".woff2", "font/woff2"},
    {".txt", "text/plain; charset=utf-8"},
    {".map", "application/json"},
    {".webmanifest", "application/manifest+json"},
}};

const char* TypeOf(std::string_view name) {
  const auto* const found =
      std::find_if(kTypes.begin(), kTypes.end(), [name](const auto& row) { return name.ends_with(row.first); });
  return found == kTypes.end() ? "application/octet-stream" : found->second;
}

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
  const std::size_t end = text.find_last_not_of(" \t");
  return end == std::string_view::npos ? std::string_view() : text.substr(begin, end + 1 - begin);
}

// "q=0", "q=0.0" and so on say that an encoding is not wanted.
bool IsRefused(std::string_view weight) {
  weight = Trimmed(weight);
  return weight.starts_with("q=0") && weight.find_first_not_of("0.", 2) == std::string_view::npos;
}

}  // namespace
}  // namespace details

bool TakesGzip(std::string_view accept_encoding) {
  while (!accept_encoding.empty()) {
    const std::size_t comma = std::min(accept_encoding.find(','), accept_encoding.size());
    const std::string_view one = accept_encoding.substr(0, comma);
    accept_encoding.remove_prefix(std::min(comma + 1, accept_encoding.size()));
    const std::size_t semicolon = std::min(one.find(';'), one.size());
    if (details::Trimmed(one.substr(0, semicolon)) == "gzip") {
      return !details::IsRefused(one.substr(std::min(semicolon + 1, one.size())));
    }
  }
  return false;
}

ConsoleAnswer AnswerWithPage(const ConsoleRequest& request, const std::vector<EmbeddedFile>& files) {
  if (request.method != "GET" && request.method != "HEAD") {
    return ConsoleFailure(405, "only GET and HEAD");
  }
  const std::string_view name = request.path.empty() ? details::kPageName : request.path;
  const auto file =
      std::find_if(files.begin(), files.end(), [name](const EmbeddedFile& each) { return each.name == name; });
  if (file == files.end()) {
    return ConsoleFailure(404, "there is no such file: open /console/");
  }
  ConsoleAnswer answer;
  answer.type = details::TypeOf(name);
  answer.cache = name == details::kPageName ? details::kAskAgain : details::kKeep;
  if (!file->gzip.empty()) {
    answer.headers["Vary"] = "Accept-Encoding";
  }
  const bool is_packed = !file->gzip.empty() && TakesGzip(request.Header("Accept-Encoding"));
  answer.encoding = is_packed ? "gzip" : "";
  answer.body = is_packed ? file->gzip : file->plain;
  return answer;
}

}  // namespace Tansy::Host
