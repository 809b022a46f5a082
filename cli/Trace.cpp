#include "Trace.h"

#include <algorithm>

#include "Output.h"
#include "TansyNet/HttpClient.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr char kMask[] = "***";

// Replaces the text that follows `before`, up to the end of the parameter or of the text.
void MaskBehind(const std::string& before, std::string& text) {
  for (std::size_t at = text.find(before); at != std::string::npos; at = text.find(before, at + 1)) {
    const std::size_t begin = at + before.size();
    const std::size_t end = std::min(text.size(), text.find_first_of("& \r\n", begin));
    text.replace(begin, end - begin, kMask);
  }
}

// The object protocol's value is "quorvane <access key>:<signature>"; that of the S3 door is a list, in which the
// signature has a name. Of any other nothing is shown.
std::string MaskAuthorization(const std::string& value) {
  if (value.find("Signature=") != std::string::npos) {
    return MaskSecrets(value);
  }
  return value.substr(0, value.rfind(':') + 1) + kMask;
}

std::string HeaderLines(const TansyNet::Headers& headers, const char* mark) {
  std::string lines;
  for (const auto& [name, value] : headers) {
    const std::string shown = name == "Authorization" ? MaskAuthorization(value) : MaskSecrets(value);
    lines += std::string("\n") + mark + " " + Printable(name) + ": " + Printable(shown);
  }
  return lines;
}

void ShowRequest(const TansyNet::CHttpClientRequest& request) {
  std::string text =
      "> " + request.method + " " + Printable(MaskSecrets(request.url)) + HeaderLines(request.headers, ">");
  if (!request.content_type.empty()) {
    text += "\n> Content-Type: " + Printable(request.content_type);
  }
  PrintNote(text + "\n> " + std::to_string(request.body_size) + " bytes");
}

void ShowAnswer(const TansyNet::CHttpClientRequest& request, const TansyNet::CHttpClientResponse& answer,
                const TansyNet::HttpClient::Error& error) {
  std::string text = "< ";
  if (answer.status != 0) {
    text += std::to_string(answer.status) + " to ";
  }
  text += request.method + " " + Printable(MaskSecrets(request.url)) + HeaderLines(answer.headers, "<");
  if (error.kind != TansyNet::HttpClient::kNone) {
    text += "\n< " + Printable(TansyNet::HttpClient::ErrorText(error));
  }
  PrintNote(text);
}

}  // namespace
}  // namespace details

std::string MaskSecrets(const std::string& text) {
  std::string masked = text;
  for (const char* before : {"token=", "Signature="}) {
    details::MaskBehind(before, masked);
  }
  return masked;
}

void ShowRequests() {
  TansyNet::HttpClient::SetObserver([](const TansyNet::CHttpClientRequest& request,
                                       const TansyNet::CHttpClientResponse* answer,
                                       const TansyNet::HttpClient::Error& error) {
    if (answer == nullptr) {
      details::ShowRequest(request);
    } else {
      details::ShowAnswer(request, *answer, error);
    }
  });
}

}  // namespace Tansy::Cli
