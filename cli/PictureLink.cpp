#include "PictureLink.h"

#include <cstdio>

#include "ClientRecord.h"
#include "ModuleLogSink.h"
#include "Output.h"
#include "ServerLink.h"
#include "TansyNet/HttpClient.h"

namespace Tansy::Cli {
namespace details {
namespace {

CFailure FailureOfStatus(int status, const std::string& server) {
  if (status == 401 || status == 403) {
    return {kExitDenied, "the server denies access (" + server + ")", "check the keys with 'tansy doctor'"};
  }
  return {status == 404 ? kExitNotFound : kExitFailed, server + " answered " + std::to_string(status),
          status >= 500 ? "is the address right? The server's log says more" : ""};
}

}  // namespace
}  // namespace details

CloudStorage::CPictureClient MakePictureClient(const Settings& settings, const std::string& pool) {
  return CloudStorage::CPictureClient(MakeClientRecord(settings, settings.picture_server, pool));
}

CFailure FailureOfPictureClient(const std::string& server) {
  // The picture client tells its reasons to the log only: "... error[3:111]", "... error[403:{...}]" or
  // "... status code:404, ...".
  const std::string line = TakeModuleError();
  int first = 0;
  int second = 0;
  if (const std::size_t at = line.find("error["); at != std::string::npos) {
    const int numbers = std::sscanf(line.c_str() + at, "error[%d:%d]", &first, &second);
    if (first >= 100) {
      return details::FailureOfStatus(first, server);
    }
    if (numbers == 2) {
      return FailureOfExchange({first, second}, server);
    }
  }
  if (const std::size_t at = line.find("status code:"); at != std::string::npos) {
    std::sscanf(line.c_str() + at, "status code:%d", &first);
    return details::FailureOfStatus(first, server);
  }
  if (line.find("exceed") != std::string::npos) {
    return {kExitUsage, "the picture is too large", "pictures have at most 32 MiB"};
  }
  return {kExitUnreachable, server + ": no usable answer", "'tansy doctor' looks closer"};
}

TansyProto::CRapidJsonProto RequestPictureInfo(const Settings& settings, const std::string& target,
                                               const std::string& subject) {
  const CServerLink server(settings, settings.picture_server);
  const TansyNet::CHttpClientResponse answer = server.Exchange("GET", target);
  if (answer.status != 200) {
    throw details::FailureOfStatus(answer.status, server.Address().Url()).About(subject);
  }
  TansyProto::CRapidJsonProto json;
  if (!json.Parse(answer.body)) {
    throw CFailure(kExitFailed, subject + ": the answer is no JSON", "is this a picture server?");
  }
  return json;
}

std::string ParsePictureUrl(const std::string& text, Settings& settings) {
  std::string target = text;
  if (TansyNet::URL url; TansyNet::URL::Parse(text, url)) {
    settings.picture_server = {url.scheme == "https", url.host, url.port};
    target = url.target;
  }
  bool plain = true;
  for (const char c : target) {
    plain = plain && static_cast<unsigned char>(c) > 0x20 && c != 0x7f && c != '#';
  }
  if (!target.starts_with("/") || !plain) {
    throw CFailure(kExitUsage, "\"" + Printable(text) + "\" is no picture URL",
                   "give /pic?... as 'tansy pic put' prints it, in quotes");
  }
  return target;
}

}  // namespace Tansy::Cli
