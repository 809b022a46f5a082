#include "PictureLink.h"

#include "ClientRecord.h"
#include "Output.h"
#include "ServerLink.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::size_t kLongestCode = 100;

// `code` is the picture protocol's number for the error, or empty.
CFailure FailureOfStatus(int status, const std::string& code, const std::string& server) {
  const std::string known = code.empty() ? "" : ": " + Printable(code.substr(0, kLongestCode));
  if (status == 401 || status == 403) {
    return {kExitDenied, "the server denies access (" + server + known + ")", "check the keys with 'tansy doctor'"};
  }
  return {status == 404 ? kExitNotFound : kExitFailed, server + " answered " + std::to_string(status) + known,
          status >= 500 ? "is the address right? The server's log says more" : ""};
}

std::string ErrorCode(const std::string& body) {
  TansyProto::CRapidJsonProto json;
  return json.Parse(body) && json.Has("/ErrorCode") ? std::to_string(json.GetInt("/ErrorCode")) : "";
}

}  // namespace
}  // namespace details

CloudStorage::CPictureClient MakePictureClient(const Settings& settings, const std::string& pool) {
  return CloudStorage::CPictureClient(MakeClientRecord(settings, PictureServer(settings), pool));
}

CFailure FailureOfPictureClient(const CloudStorage::CPictureClient& client, const ServerAddress& server) {
  const CloudStorage::SClientFailure failure = client.GetLastFailure();
  const std::string address =
      failure.address.empty() ? server.Url() : (server.is_https ? "https://" : "http://") + failure.address;
  if (failure.transport_error != 0) {
    return FailureOfExchange({failure.transport_error, failure.system_error}, address);
  }
  if (failure.http_status != 0 && failure.http_status != 200) {
    return details::FailureOfStatus(failure.http_status, failure.error_code, address);
  }
  const bool is_argument = failure.code == CloudStorage::ClientError::kBadArgument;
  return {is_argument ? kExitUsage : kExitFailed,
          address + ": " + (failure.text.empty() ? "no usable answer" : Printable(failure.text)),
          "'tansy doctor' looks closer"};
}

TansyProto::CRapidJsonProto RequestPictureInfo(const Settings& settings, const std::string& target,
                                               const std::string& subject) {
  const CServerLink server(settings, PictureServer(settings));
  const TansyNet::CHttpClientResponse answer = server.Exchange({.resource = target});
  if (answer.status != 200) {
    throw details::FailureOfStatus(answer.status, details::ErrorCode(answer.body), server.Address().Url())
        .About(subject);
  }
  TansyProto::CRapidJsonProto json;
  if (!json.Parse(answer.body)) {
    throw CFailure(kExitFailed, subject + ": the answer is no JSON", "is this a picture server?");
  }
  return json;
}

std::string ParsePictureUrl(const std::string& text, const Settings& settings) {
  std::string target =
      TargetOnServer(text, PictureServer(settings), "set it as the picture_url of a server in the configuration");
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
