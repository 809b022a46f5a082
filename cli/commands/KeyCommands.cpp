#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "AdminLink.h"
#include "Commands.h"
#include "Duration.h"
#include "Failure.h"
#include "Output.h"
#include "Parallel.h"
#include "Settings.h"
#include "TansyBase/TimeUtil.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

using TansyProto::CRapidJsonProto;

CRapidJsonProto Parsed(const std::string& body) {
  CRapidJsonProto json;
  if (!json.Parse(body)) {
    throw CFailure(kExitFailed, "the server's answer makes no sense", "is this the admin port of a tansyd?");
  }
  return json;
}

std::string TextsOf(const CRapidJsonProto& json, const std::string& at) {
  std::string texts;
  for (std::size_t i = 1; json.Has(at + "[" + std::to_string(i) + "]"); ++i) {
    texts += (i == 1 ? "" : ",") + Printable(json.GetString(at + "[" + std::to_string(i) + "]"));
  }
  return texts;
}

std::string EndOf(std::int64_t time) {
  if (time == 0) {
    return "-";
  }
  return TansyBase::TimeUtil::TimeT2StrUTCDatetime(time) + (time <= TansyBase::TimeUtil::Now() ? " (ended)" : "");
}

std::string RequestForKey(const CommandCall& call) {
  CRapidJsonProto json;
  json.SetString("/name", call.Argument("NAME"));
  json.SetBool("/read_only", call.Has("--read-only"));
  const std::int64_t now = TansyBase::TimeUtil::Now();
  json.SetInt("/expires", call.Has("--expires") ? ParseEnd(call.Option("--expires"), now) : 0);
  const std::string buckets = call.Option("--bucket");
  std::size_t count = 0;
  for (std::size_t at = 0; call.Has("--bucket") && at <= buckets.size();) {
    const std::size_t end = std::min(buckets.find('\n', at), buckets.size());
    json.SetString("/buckets[" + std::to_string(++count) + "]", buckets.substr(at, end - at));
    at = end + 1;
  }
  return json.Serialize();
}

int RunKeyAdd(const CommandCall& call) {
  const CAdminLink link(UseSettings(call.globals));
  const std::string body = link.Request("POST", "keys", RequestForKey(call));
  const CRapidJsonProto key = Parsed(body);
  if (call.globals.json) {
    PrintLine(key.Serialize());
    return kExitDone;
  }
  PrintTable({{"access key", key.GetString("/access_key")}, {"secret key", key.GetString("/secret_key")}});
  if (!call.globals.quiet) {
    PrintNote("note: the secret key is shown this once only; keep it where its user finds it");
  }
  return kExitDone;
}

int RunKeyList(const CommandCall& call) {
  const CAdminLink link(UseSettings(call.globals));
  const CRapidJsonProto json = Parsed(link.Request("GET", "keys"));
  std::vector<std::vector<std::string>> rows;
  for (std::size_t i = 1; json.Has("/keys[" + std::to_string(i) + "]"); ++i) {
    const std::string at = "/keys[" + std::to_string(i) + "]";
    if (call.globals.json) {
      PrintLine(json.Serialize(at));
      continue;
    }
    const bool is_usable = json.GetString(at + "/is_usable") == "true";
    const std::string buckets = TextsOf(json, at + "/buckets");
    const std::string rights = json.GetString(at + "/read_only") == "true" ? "reads" : "reads, writes";
    rows.push_back({Printable(json.GetString(at + "/name")), Printable(json.GetString(at + "/access_key")),
                    is_usable ? rights : "cannot be opened: see the server's log",
                    is_usable ? (buckets.empty() ? "all buckets" : buckets) : "",
                    EndOf(json.GetInt(at + "/expires", 0))});
  }
  PrintTable(rows);
  return kExitDone;
}

int RunKeyRemove(const CommandCall& call) {
  const CAdminLink link(UseSettings(call.globals));
  return ForEach(call.Arguments("NAME"), [&](const std::string& name) -> std::string {
    try {
      link.Request("DELETE", "keys/" + name);
    } catch (const CFailure& failure) {
      throw failure.About("key " + Printable(name));
    }
    if (call.globals.json) {
      return CJsonLine().Add("name", name).Add("removed", true).Text();
    }
    return call.globals.quiet ? "" : "removed " + Printable(name);
  });
}

}  // namespace
}  // namespace details

CommandSpec KeyAddCommand() {
  return {
      "key",
      "add",
      "make a key for another user of the S3 protocol",
      "Makes a pair of keys for programs that use the S3 protocol, and prints it. It may do everything unless options "
      "say less. It counts at once. The server's own keys stay as they are, and they alone may make and remove "
      "others. The request goes to the server's admin port.",
      {{.name = "NAME", .help = "what the key is called: letters, digits and -_.@"}},
      {{"--bucket", "BUCKET", "a bucket that the key may use; give it again for another one. Without: all", true},
       {"--read-only", nullptr, "the key may list and read, and write nothing"},
       {"--expires", "WHEN", "end after a time such as 15m, 2h, 7d or 4w, or at the beginning of a day: 2027-01-31"}},
      {{"tansy key add backup --bucket backups", "a key for one bucket"},
       {"tansy key add guest --bucket photos --read-only --expires 7d", "one that reads for a week"}},
      details::RunKeyAdd};
}

CommandSpec KeyListCommand() {
  return {
      "key",
      "ls",
      "list the keys of other users of the S3 protocol",
      "Lists the keys that 'tansy key add' made, one per line: name, access key, what it may do, with which buckets, "
      "and when it ends (UTC; - for never). Secret keys are never shown again.",
      {},
      {},
      {{"tansy key ls", "list them"}, {"tansy --json key ls", "the same for a program"}},
      details::RunKeyList};
}

CommandSpec KeyRemoveCommand() {
  return {
      "key",
      "rm",
      "remove keys of other users of the S3 protocol",
      "Removes keys. From then on requests that they sign are refused, and so are links that they have signed before.",
      {{.name = "NAME", .help = "name of the key", .many = true}},
      {},
      {{"tansy key rm guest", "remove the key guest"}},
      details::RunKeyRemove};
}

}  // namespace Tansy::Cli
