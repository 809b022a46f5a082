#include "AdminKeys.h"

#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "HostLog.h"
#include "NewKeyRequest.h"
#include "TansyNet/Operation.h"
#include "TansyNet/S3Signing.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Host {
namespace details {
namespace {

using TansyProto::CRapidJsonProto;

constexpr const char* kPath = "/admin/keys";
constexpr const char* kService = "admin";

TansyNet::COperation key_operation{kService, "Keys"};

struct KeyAnswer {
  int status = 200;
  std::string json;
};

KeyAnswer Problem(int status, const std::string& words) {
  CRapidJsonProto json;
  json.SetString("/error", words);
  return {status, json.Serialize()};
}

KeyAnswer Problem(const KeyOutcome& outcome) {
  const int status = outcome.problem == EKeyProblem::kWrong     ? 400
                     : outcome.problem == EKeyProblem::kMissing ? 404
                     : outcome.problem == EKeyProblem::kThere   ? 409
                                                                : 500;
  return Problem(status, outcome.words);
}

// Without the secret.
void Describe(CRapidJsonProto& json, const std::string& at, const Key& key) {
  json.SetString(at + "/name", key.name);
  json.SetString(at + "/access_key", key.access_key);
  json.SetBool(at + "/read_only", key.read_only);
  json.SetInt(at + "/created", key.created);
  json.SetInt(at + "/expires", key.expires);
  json.SetBool(at + "/is_usable", !key.secret_key.empty());
  for (std::size_t i = 0; i < key.buckets.size(); ++i) {
    json.SetString(at + "/buckets[" + std::to_string(i + 1) + "]", key.buckets[i]);
  }
}

KeyAnswer ListKeys(const CKeys& keys) {
  CRapidJsonProto json;
  const std::vector<Key> all = keys.List();
  json.SetInt("/count", static_cast<std::int64_t>(all.size()));
  for (std::size_t i = 0; i < all.size(); ++i) {
    Describe(json, "/keys[" + std::to_string(i + 1) + "]", all[i]);
  }
  return {200, json.Serialize()};
}

KeyAnswer AddKey(CKeys& keys, const std::string& body) {
  Key key;
  if (const std::string wrong = ReadNewKey(key, body); !wrong.empty()) {
    return Problem(400, wrong);
  }
  if (const KeyOutcome outcome = keys.Add(key); outcome.problem != EKeyProblem::kNone) {
    return Problem(outcome);
  }
  HOST_LOG(logging::kNotable, "[%s]made key %s, access key %s.[%s(%d)]", key.name.c_str(), key.access_key.c_str());
  CRapidJsonProto json;
  Describe(json, "", key);
  json.SetString("/secret_key", key.secret_key);
  return {200, json.Serialize()};
}

KeyAnswer RemoveKey(CKeys& keys, const std::string& name) {
  if (const KeyOutcome outcome = keys.Remove(name); outcome.problem != EKeyProblem::kNone) {
    return Problem(outcome);
  }
  HOST_LOG(logging::kNotable, "[%s]removed key %s.[%s(%d)]", name.c_str());
  CRapidJsonProto json;
  json.SetString("/name", name);
  json.SetBool("/removed", true);
  return {200, json.Serialize()};
}

// `name` is what stands behind the path; empty: nothing.
KeyAnswer AnswerTo(CKeys& keys, const std::string& method, const std::string& name, const std::string& body) {
  if (method == "GET" && name.empty()) {
    return ListKeys(keys);
  }
  if (method == "POST" && name.empty()) {
    return AddKey(keys, body);
  }
  if (method == "DELETE" && !name.empty()) {
    return RemoveKey(keys, name);
  }
  return Problem(405, "there are GET and POST of /admin/keys, and DELETE of /admin/keys/NAME");
}

void Send(std::int32_t handle, const KeyAnswer& answer) {
  TansyNet::HttpResponse response;
  response.status = answer.status;
  response.content_type = "application/json";
  response.cache_control = "no-store";
  response.headers["X-Content-Type-Options"] = "nosniff";
  const std::string body = answer.json + "\n";
  TansyNet::CHttpServer::HttpServerSyncSend(handle, response, static_cast<std::uint32_t>(body.size()), body.data());
}

}  // namespace
}  // namespace details

bool TakeKeyRequest(const std::shared_ptr<CKeys>& keys, std::int32_t handle, const TansyNet::HttpServerRecv& message) {
  const std::string path = details::kPath;
  const bool is_one = message.url.starts_with(path + "/");
  if (message.url != path && !is_one) {
    return false;
  }
  TansyNet::BeginOperation(message.note, details::key_operation);
  const std::string name =
      is_one ? TansyNet::S3Signing::PercentDecode(std::string_view(message.url).substr(path.size() + 1)) : "";
  const bool is_taken = keys->Post([keys = keys.get(), handle, method = message.method, name, body = message.body] {
    details::KeyAnswer answer;
    try {
      answer = details::AnswerTo(*keys, method, name, body == nullptr ? std::string() : *body);
    } catch (const std::exception& error) {
      HOST_LOG(logging::kError, "[%s]request failed: %s.[%s(%d)]", error.what());
      answer = details::Problem(500, "failed, see the log");
    }
    details::Send(handle, answer);
  });
  if (!is_taken) {
    details::Send(handle, details::Problem(503, "too many requests wait for the database: try again later"));
  }
  return true;
}

}  // namespace Tansy::Host
