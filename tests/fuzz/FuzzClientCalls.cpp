// What the client classes make of answers: their XML and JSON, their headers and their redirects. The first byte of the
// input names the call; behind it come the answers of the server, with NUL bytes between them: a status, lines of
// headers, an empty line, the body. This program stands in for the HTTP library.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Require.h"
#include "TansyCloudStorage/ObjectClient.h"
#include "TansyCloudStorage/PictureClient.h"
#include "TansyNet/HttpClient.h"
#include "fakes/TempFolder.h"
#include "logging/Logging.h"

namespace {

using namespace Tansy::CloudStorage;
using TansyNet::CHttpClientRequest;
using TansyNet::CHttpClientResponse;
using TansyNet::HttpClient;

// No call of these needs more requests, whatever the server answers.
constexpr std::size_t kMostRequests = 20;

struct Server {
  std::vector<CHttpClientResponse> answers;  // the last one is given again and again
  std::size_t asked = 0;
  bool own_only = false;  // the call may speak to the configured server only
};
Server g_server;

CHttpClientResponse ReadAnswer(const std::string& text) {
  CHttpClientResponse answer;
  std::size_t begin = 0;
  for (bool is_first = true; begin < text.size(); is_first = false) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    const std::string line = text.substr(begin, end - begin);
    begin = end + 1;
    if (is_first) {
      answer.status = std::clamp(std::atoi(line.c_str()), 200, 999);
      continue;
    }
    if (line.empty()) {
      break;
    }
    const std::size_t colon = line.find(": ");
    if (colon != std::string::npos && line.find('\r') == std::string::npos) {
      answer.headers.emplace(line.substr(0, colon), line.substr(colon + 2));
    }
  }
  answer.body = begin < text.size() ? text.substr(begin) : "";
  answer.content_length = answer.body.size();
  return answer;
}

// Gives the next answer, or refuses the request as the library would.
bool NextAnswer(const CHttpClientRequest& request, CHttpClientResponse& answer, HttpClient::Error& error) {
  Require(++g_server.asked <= kMostRequests);
  Require(request.headers.count("Authorization") == 1);
  error = {};
  TansyNet::URL url;
  if (!TansyNet::URL::Parse(request.url, url)) {
    error = {HttpClient::kBadUrl, 22};
    return false;
  }
  Require(!g_server.own_only || (url.scheme == "http" && url.host == "127.0.0.1" && url.port == 9700));
  if (g_server.answers.empty()) {
    error = {HttpClient::kConnect, 111};
    return false;
  }
  answer = g_server.answers[std::min(g_server.asked, g_server.answers.size()) - 1];
  if (answer.body.size() > request.max_body_bytes) {
    error = {HttpClient::kTooLarge, 27};
    return false;
  }
  return true;
}

}  // namespace

// The HTTP library's client: these are called instead of its own.
namespace TansyNet {

bool HttpClient::Send(const CHttpClientRequest& request, CHttpClientResponse* response, Error* error) {
  return NextAnswer(request, *response, *error);
}

bool HttpClient::SendForBigRsp(const CHttpClientRequest& request, const BigCallback& callback) {
  CHttpClientResponse answer;
  Error error;
  const bool sent = NextAnswer(request, answer, error);
  const std::string body = std::exchange(answer.body, {});
  callback(answer, body.data(), static_cast<unsigned int>(body.size()), error, true);
  return sent;
}

}  // namespace TansyNet

namespace {

SStorageServerConfig Config() {
  SStorageServerConfig config;
  config.ip = "127.0.0.1";
  config.upload_port = config.download_port = 9700;
  config.pool_name = "pool";
  config.ak = "access";
  config.sk = "secret";
  return config;
}

// Bytes that a download has handed out.
template <typename Size>
void CheckBytes(char* data, Size size, bool ends_with_nul) {
  const std::unique_ptr<char[]> owner(data);
  Require(data != nullptr);
  Require(!ends_with_nul || data[size] == '\0');
  const std::string& body = g_server.answers[std::min(g_server.asked, g_server.answers.size()) - 1].body;
  Require(body == std::string(data, size));
}

bool Download(CObjectClient& client, const std::string* range) {
  char* data = nullptr;
  unsigned int size = 0;
  std::string text = range != nullptr ? *range : "";
  const bool done = range != nullptr ? client.DownloadFile(&data, size, text, "/pool/key")
                                     : client.DownloadFile(&data, size, "/pool/key");
  if (done) {
    CheckBytes(data, size, true);
  } else {
    Require(data == nullptr && size == 0);
  }
  return done;
}

bool DownloadPicture(CPictureClient& client) {
  char* data = nullptr;
  std::uint32_t size = 0;
  const bool done = client.DownloadPicture(&data, size, "/pic?id=1");
  if (done) {
    CheckBytes(data, size, false);
  } else {
    Require(data == nullptr && size == 0);
  }
  return done;
}

bool DownloadIntoFile(CObjectClient& client) {
  static const Tansy::Tests::CTempFolder folder;
  return client.DownloadFile("/pool/key", folder.Path("file"));
}

// An upload's address is the client's own path, whatever the server says.
bool Upload(CObjectClient& client, bool in_parts) {
  std::string url;
  const bool done =
      in_parts ? client.UploadFileByPiecesAloneStorage(url, "bytes", 5, true) : client.UploadFile(url, "bytes", 5);
  Require(!done || url.starts_with("/pool/"));
  return done;
}

// What went wrong is known afterwards.
template <typename Client>
void Check(const Client& client, bool done) {
  Require(done || client.GetLastFailure().code != ClientError::kNone);
  Require(!done || g_server.asked > 0);
}

void Call(unsigned char number) {
  CObjectClient objects(Config());
  CPictureClient pictures(Config());
  const std::string range = "0-5";
  std::string text;
  switch (number % 8) {
    case 0:
      return Check(objects, Upload(objects, false));
    case 1:
      return Check(objects, Upload(objects, true));
    case 2:
      return Check(objects, Download(objects, nullptr));
    case 3:
      return Check(objects, Download(objects, &range));
    case 4:
      return Check(objects, DownloadIntoFile(objects));
    case 5:
      g_server.own_only = true;
      return Check(objects, objects.RemoveFileByUrl("/pool/key"));
    case 6:
      return Check(pictures, pictures.UploadPicture(text, "jpeg", 4));
    default:
      g_server.own_only = true;
      return Check(pictures, DownloadPicture(pictures));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  logging::SetSink(nullptr);
  if (size == 0) {
    return 0;
  }
  g_server = {};
  const std::string text(data + 1, data + size);
  for (std::size_t begin = 0; begin < text.size() && g_server.answers.size() < kMostRequests;) {
    const std::size_t end = std::min(text.find('\0', begin), text.size());
    g_server.answers.push_back(ReadAnswer(text.substr(begin, end - begin)));
    begin = end + 1;
  }
  Call(data[0]);
  return 0;
}
